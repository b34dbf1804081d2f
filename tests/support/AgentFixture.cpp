#include "support/AgentFixture.h"

#include <algorithm>
#include <iterator>

namespace pelktest {

using PELK::ACTION_REGISTER;

CallbackRecorder& CallbackRecorder::instance() {
    static CallbackRecorder recorder;
    return recorder;
}

namespace {

template <class Fill>
void recordOf(const char* kind, int status, void* user, Fill fill) {
    CallbackRecord record;
    record.kind = kind;
    record.status = status;
    record.user = user;
    fill(record);
    CallbackRecorder::instance().record(record);
}

}  // namespace

void CallbackRecorder::onApp(const PELK::InteractionApp* app, int status, void* user) {
    recordOf("app", status, user, [&](CallbackRecord& record) { record.app = *app; });
}

void CallbackRecorder::onDevice(const PELK::DLNADevice* device, int status, void* user) {
    recordOf("device", status, user, [&](CallbackRecord& record) { record.device = *device; });
}

void CallbackRecorder::onData(PELK::data_transfer_event event, void* user) {
    recordOf("data", 0, user, [&](CallbackRecord& record) { record.dataEvent = event; });
}

void CallbackRecorder::onFile(PELK::file_transfer_event event, void* user) {
    recordOf("file", 0, user, [&](CallbackRecord& record) { record.fileEvent = event; });
}

void CallbackRecorder::onReceiveData(int type, const char* data, int len, void* user,
                                     const PELK::InteractionApp* sender) {
    recordOf("receive-data", type, user, [&](CallbackRecord& record) {
        record.app = *sender;
        record.data.assign(data, data + std::max(len, 0));
    });
}

void CallbackRecorder::onReceiveFile(PELK::file_transfer_event event, void* user) {
    recordOf("receive-file", 0, user, [&](CallbackRecord& record) { record.fileEvent = event; });
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
}

bool CallbackRecorder::waitFor(const std::string& kind, size_t count, int timeoutMs) {
    return waitUntil([&] {
        std::lock_guard<std::mutex> guard(m_mutex);
        const auto ofKind = [&](const CallbackRecord& record) { return record.kind == kind; };
        return static_cast<size_t>(std::count_if(m_records.begin(), m_records.end(), ofKind)) >= count;
    }, timeoutMs);
}

std::vector<CallbackRecord> CallbackRecorder::of(const std::string& kind) {
    std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<CallbackRecord> matching;
    std::copy_if(m_records.begin(), m_records.end(), std::back_inserter(matching),
                 [&](const CallbackRecord& record) { return record.kind == kind; });
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

void AgentTest::registerAgent(bool autoReconnect) {
    ASSERT_EQ(0, agent->registerApp("tester", kCallerAppID, &user, CallbackRecorder::onApp, CallbackRecorder::onDevice,
                                    autoReconnect));
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
