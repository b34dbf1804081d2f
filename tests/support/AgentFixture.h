// What the agent suites share: an agent of their own (not the process's), the fake service, a
// recorder of every callback the agent makes, and helpers that register, push events and read
// requests back off the wire. Callbacks arrive on the agent's threads; the recorder is locked.
#ifndef PELK_TESTS_AGENTFIXTURE_H
#define PELK_TESTS_AGENTFIXTURE_H

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ActionAgent.h"
#include "support/FakeService.h"
#include "support/LogCapture.h"
#include "support/MessageGoldens.h"
#include "support/Waits.h"

namespace pelktest {

// The agent's constructor is for getInstance(); tests make their own agents through this.
class TestAgent : public PELK::Agent::ActionAgent {
public:
    TestAgent() = default;
};

// One callback the agent made, whatever its kind.
struct CallbackRecord {
    std::string kind;  // "app", "device", "data", "file", "copy", "receive-data", "receive-file"
    int status = 0;    // app and device change type, received data type
    void* user = nullptr;
    PELK::InteractionApp app;
    PELK::DLNADevice device;
    PELK::data_transfer_event dataEvent;
    PELK::file_transfer_event fileEvent;
    Bytes data;
};

class CallbackRecorder {
public:
    static void onApp(const PELK::InteractionApp* app, int status, void* user);
    static void onDevice(const PELK::DLNADevice* device, int status, void* user);
    static void onData(PELK::data_transfer_event event, void* user);
    static void onFile(PELK::file_transfer_event event, void* user);
    static void onReceiveData(int type, const char* data, int len, void* user, const PELK::InteractionApp* sender);
    static void onReceiveFile(PELK::file_transfer_event event, void* user);

    // The recorder that the static callbacks fill; user pointers are recorded, not used.
    static CallbackRecorder& instance();

    void record(CallbackRecord record);
    // Waits until `count` records of kind have arrived in all.
    bool waitFor(const std::string& kind, size_t count, int timeoutMs = 8000);
    std::vector<CallbackRecord> of(const std::string& kind);
    void clear();
    // Runs once, on the callback's thread, inside the next callback of kind.
    void runInside(const std::string& kind, std::function<void()> action);

private:
    std::mutex m_mutex;
    std::vector<CallbackRecord> m_records;
    std::string m_actionKind;
    std::function<void()> m_action;
};

class AgentTest : public ::testing::Test {
protected:
    static constexpr int kAppID = 7;       // what the fake service assigns
    static constexpr int kCallerAppID = 3;  // the number the app registers under

    // Declared in this order so that the agent goes first, then the service, then the log.
    LogCapture log;
    std::unique_ptr<FakeService> service = std::make_unique<FakeService>();
    std::unique_ptr<TestAgent> agent = std::make_unique<TestAgent>();
    CallbackRecorder& callbacks = CallbackRecorder::instance();
    int user = 0;  // its address is the registration user pointer

    void SetUp() override;
    void TearDown() override;

    // Registers with both change callbacks and checks that it worked.
    void registerAgent(bool autoReconnect = true);
    // Scripts the service to accept registration (as kAppID), unregistration and receive options.
    void answerLifecycle();
    // Answers every request with this ID by an 8-byte reply holding result.
    void answerResult(int32_t actionID, int32_t result = 0);
    // The last request with this ID that reached the service (fails the test when none did).
    Bytes lastRequest(int32_t actionID);
    // Waits until the agent holds this app ID (callbacks come before the state they announce).
    bool waitForAppID(int appID, int timeoutMs = 5000);
    // Hands a frame straight to the dispatcher on this thread.
    void dispatch(const Bytes& body);
};

}  // namespace pelktest

#endif  // PELK_TESTS_AGENTFIXTURE_H
