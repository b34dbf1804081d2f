#include "support/AgentFixture.h"

#include <chrono>
#include <thread>

namespace pelktest {

using PELK::ACTION_REGISTER;

CallbackRecorder& CallbackRecorder::instance() {
    static CallbackRecorder recorder;
    return recorder;
}

namespace {

CallbackRecord recordOf(const char* kind, int status, void* user) {
    CallbackRecord record;
    record.kind = kind;
    record.status = status;
    record.user = user;
    return record;
}

}  // namespace

void CallbackRecorder::onApp(const PELK::InteractionApp* app, int status, void* user) {
    CallbackRecord record = recordOf("app", status, user);
    record.app = *app;
    instance().record(record);
}

void CallbackRecorder::onDevice(const PELK::DLNADevice* device, int status, void* user) {
    CallbackRecord record = recordOf("device", status, user);
    record.device = *device;
    instance().record(record);
}

void CallbackRecorder::onData(PELK::data_transfer_event event, void* user) {
    CallbackRecord record = recordOf("data", 0, user);
    record.dataEvent = event;
    instance().record(record);
}

void CallbackRecorder::onFile(PELK::file_transfer_event event, void* user) {
    CallbackRecord record = recordOf("file", 0, user);
    record.fileEvent = event;
    instance().record(record);
}

void CallbackRecorder::onReceiveData(int type, const char* data, int len, void* user,
                                     const PELK::InteractionApp* sender) {
    CallbackRecord record = recordOf("receive-data", type, user);
    record.app = *sender;
    record.data.assign(data, data + (len > 0 ? len : 0));
    instance().record(record);
}

void CallbackRecorder::onReceiveFile(PELK::file_transfer_event event, void* user) {
    CallbackRecord record = recordOf("receive-file", 0, user);
    record.fileEvent = event;
    instance().record(record);
}

void CallbackRecorder::record(CallbackRecord record) {
    std::function<void()> action;
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        if (m_action && m_actionKind == record.kind) {
            action.swap(m_action);
        }
    }
    if (action) {
        action();
    }
    std::lock_guard<std::mutex> guard(m_mutex);
    m_records.push_back(std::move(record));
    m_changed.notify_all();
}

bool CallbackRecorder::waitFor(const std::string& kind, size_t count, int timeoutMs) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
        size_t seen = 0;
        for (const CallbackRecord& record : m_records) {
            seen += record.kind == kind ? 1 : 0;
        }
        return seen >= count;
    });
}

std::vector<CallbackRecord> CallbackRecorder::of(const std::string& kind) {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<CallbackRecord> matching;
    for (const CallbackRecord& record : m_records) {
        if (record.kind == kind) {
            matching.push_back(record);
        }
    }
    return matching;
}

void CallbackRecorder::clear() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_records.clear();
    m_action = nullptr;
}

void CallbackRecorder::runInside(const std::string& kind, std::function<void()> action) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_actionKind = kind;
    m_action = std::move(action);
}

void AgentTest::SetUp() {
    ASSERT_TRUE(service->listening()) << "127.0.0.1:20014 is taken";
    callbacks.clear();
    answerLifecycle();
}

void AgentTest::answerLifecycle() {
    service->answer(ACTION_REGISTER, body(ACTION_REGISTER, {kAppID, 0}));
    answerResult(PELK::ACTION_UNREGISTER);
    answerResult(PELK::ACTION_SET_RECEIVE_OPTION);
}

void AgentTest::TearDown() {
    agent.reset();
    callbacks.clear();
}

void AgentTest::registerAgent(bool withCallbacks, bool autoReconnect) {
    const int result = withCallbacks ? agent->registerApp("tester", kCallerAppID, &user, CallbackRecorder::onApp,
                                                          CallbackRecorder::onDevice, autoReconnect)
                                     : agent->registerApp("tester", kCallerAppID, &user, nullptr, nullptr,
                                                          autoReconnect);
    ASSERT_EQ(0, result);
    ASSERT_EQ(kAppID, agent->getAppID());
}

void AgentTest::answerResult(int32_t actionID, int32_t result) {
    service->answer(actionID, body(actionID, {result}));
}

Bytes AgentTest::lastRequest(int32_t actionID) {
    const std::vector<Bytes> requests = service->received(actionID);
    EXPECT_FALSE(requests.empty()) << "no request " << actionID;
    return requests.empty() ? Bytes() : requests.back();
}

bool AgentTest::waitForAppID(int appID, int timeoutMs) {
    return waitUntil([&] { return agent->getAppID() == appID; }, timeoutMs);
}

void AgentTest::dispatch(const Bytes& body) {
    Bytes whole = frame(body);
    PELK::Agent::ActionAgent::onActionReceived(reinterpret_cast<char*>(whole.data()), agent.get());
}

}  // namespace pelktest
