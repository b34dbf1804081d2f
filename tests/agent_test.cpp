// Registration, loss and reconnection, unregistration, destruction, the app list events and the
// dispatcher's handling of frames it must not trust.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "ActionManager/ResultCodes.h"
#include "support/AgentFixture.h"

using namespace pelktest;
using PELK::ACTION_REGISTER;
using PELK::ACTION_SET_RECEIVE_OPTION;
using PELK::ACTION_UNREGISTER;
using PELK::InteractionApp;
using PELK::InterAppChangeRes;

namespace {

Bytes appChange(int changeType, const InteractionApp& app) {
    InterAppChangeRes event;
    event.nChangeType = changeType;
    event.app = app;
    return Encode(event);
}

InteractionApp otherApp(int appID, const char* name) {
    InteractionApp app;
    app.nAppID = appID;
    app.nType = 11;
    app.SetAppName(name);
    app.SetIPv4("10.1.2.3");
    return app;
}

class RegistrationTest : public AgentTest {};

// Device events are asked for with a device callback, app events with an app callback; the
// own record follows the reply.
TEST_F(RegistrationTest, TheLongestNameRegistersAskingForTheEventsItHasCallbacksFor) {
    const std::string longest(259, 'n');
    const std::pair<PELK::Agent::InterAppChangeCallback, PELK::Agent::DLNADeviceChangeCallback> rows[] = {
        {nullptr, nullptr}, {CallbackRecorder::onApp, nullptr}, {nullptr, CallbackRecorder::onDevice}};
    for (const auto& row : rows) {
        ASSERT_EQ(0, agent->registerApp(longest.c_str(), kCallerAppID, &user, row.first, row.second));
        const std::string flags = {char(row.second != nullptr), char(row.first != nullptr)};
        EXPECT_EQ(longest + '\0' + flags, readField(lastRequest(ACTION_REGISTER), 8, 262));
        const InteractionApp own = agent->getOwnApp();
        EXPECT_EQ(longest, own.szAppName);
        EXPECT_EQ(kAppID, own.nAppID);
        EXPECT_EQ(kCallerAppID, own.nType);
        EXPECT_STREQ("127.0.0.1", own.szIPv4);
        EXPECT_NE(0, own.fLocalDevice);
        ASSERT_EQ(0, agent->unregisterApp());
    }
}

// Leaving sends the app ID, as destroying a registered agent does; a refusal stops the link, and
// no service at all gives 1206.
TEST_F(RegistrationTest, UnregisteringDestroyingOrARefusalStopsTheLink) {
    registerAgent();
    EXPECT_EQ(0, agent->unregisterApp());
    EXPECT_EQ(body(ACTION_UNREGISTER, {kAppID}), lastRequest(ACTION_UNREGISTER));
    registerAgent();
    agent = std::make_unique<TestAgent>();  // a registered agent unregisters first
    EXPECT_EQ(2u, service->received(ACTION_UNREGISTER).size());

    service->answer(ACTION_REGISTER, body(ACTION_REGISTER, {kAppID, 5}));
    EXPECT_EQ(5, agent->registerApp("tester", kCallerAppID, &user, nullptr, nullptr));
    EXPECT_EQ(-1, agent->getAppID());
    EXPECT_TRUE(service->waitForClientClose());
    service.reset();
    EXPECT_EQ(1206, agent->registerApp("tester", kCallerAppID, &user, nullptr, nullptr));
}

TEST_F(RegistrationTest, AFailedUnregisterKeepsTheAgentRegistered) {
    registerAgent();
    // The loss cannot be handled while a callback is still running: the agent learns of it
    // only after the failed call has returned.
    std::atomic<bool> inside(false);
    std::atomic<bool> release(false);
    callbacks.runInside("app", [&] {
        inside = true;
        while (!release) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    });
    ASSERT_TRUE(service->push(appChange(3, otherApp(20, "busy"))));
    EXPECT_TRUE(waitUntil([&] { return inside.load(); }, 5000));
    service->on(ACTION_UNREGISTER, [this](const Bytes&) {
        service->closeConnection();
        return std::vector<Bytes>{};
    });
    EXPECT_NE(0, agent->unregisterApp());
    EXPECT_EQ(kAppID, agent->getAppID());
    release = true;
    EXPECT_TRUE(waitForAppID(-1)) << "the loss is handled once the callback returns";
}

class ReconnectionTest : public AgentTest {};

// A service that stops reading makes a send time out in the middle of its frame: the connection
// can never be framed again, so it is a loss like a closed one. The agent registers again about
// 3 s later, and about 3 s after that sends the option again and tells the app it is back; data
// flows again.
TEST_F(ReconnectionTest, ASendCutByAStalledServiceIsALossAfterWhichTheAgentRegistersAgain) {
    registerAgent();
    PELK::ReceiveOption option;
    strcpy(option.directory, "/tmp/incoming");
    ASSERT_EQ(0, agent->setReceiveOption(&option));
    const InteractionApp peer = otherApp(20, "peer");
    ASSERT_TRUE(service->push(appChange(1, peer)));
    ASSERT_TRUE(callbacks.waitFor("app", 1));
    callbacks.clear();
    // The list is cleared before the app hears of the loss, while it is still registered.
    std::vector<InteractionApp> listedAtLoss;
    std::atomic<int> listed(-1);
    callbacks.runInside("app", [&] { listed = agent->getInteractionAppList(&listedAtLoss); });

    service->stallReading(true);
    const std::string chunk(65535, 'x');
    int code = 0;
    while ((code = agent->asynSendData(chunk.data(), 65535, &peer, false, nullptr, nullptr)) == 0) {
    }
    const Clock::time_point lost = Clock::now();
    EXPECT_EQ(PELK::LinkResult::kSendFailed.value, code);
    ASSERT_TRUE(callbacks.waitFor("app", 1));
    service->stallReading(false);
    EXPECT_EQ(0, listed.load());
    EXPECT_TRUE(listedAtLoss.empty());
    const CallbackRecord disconnected = callbacks.of("app").at(0);
    EXPECT_EQ(3, disconnected.status);
    EXPECT_STREQ("tester", disconnected.app.szAppName);
    EXPECT_EQ(kAppID, disconnected.app.nAppID);
    EXPECT_EQ(&user, disconnected.user);

    ASSERT_TRUE(service->waitForRequests(ACTION_REGISTER, 2, 6000));
    EXPECT_NEAR(3.5, secondsSince(lost), 1.0);
    const Bytes request = lastRequest(ACTION_REGISTER);
    EXPECT_EQ(kCallerAppID, readInt32(request, 4));
    EXPECT_EQ("tester", readText(request, 8, 260));

    const Clock::time_point registered = Clock::now();
    ASSERT_TRUE(service->waitForRequests(ACTION_SET_RECEIVE_OPTION, 2, 6000));
    EXPECT_GT(secondsSince(registered), 2.5);
    EXPECT_EQ("/tmp/incoming", readText(lastRequest(ACTION_SET_RECEIVE_OPTION), 4, 260));
    ASSERT_TRUE(callbacks.waitFor("app", 2));
    EXPECT_LT(secondsSince(registered), 4.5);
    const CallbackRecord back = callbacks.of("app").at(1);
    EXPECT_EQ(4, back.status);
    EXPECT_EQ(1u, log.count("[reconnected to server]"));
    EXPECT_EQ(kAppID, back.app.nAppID);
    EXPECT_EQ(kAppID, agent->getAppID());
    answerResult(PELK::ACTION_SEND_DATA);
    EXPECT_EQ(0, agent->sendData("after", 5, &peer, false, 5));
}

// The service stays away for two attempts; the app then registers by itself while the thread waits
// for the third, which never comes.
TEST_F(ReconnectionTest, AttemptsStartSixSecondsApartUntilTheAppRegistersByItself) {
    registerAgent();
    const Clock::time_point lost = Clock::now();
    service->closeConnection();
    service.reset();
    ASSERT_TRUE(callbacks.waitFor("app", 1));
    const auto attempts = [&] { return log.count("[reconnecting to server......]"); };
    ASSERT_TRUE(waitUntil([&] { return attempts() == 1; }, 5000));
    EXPECT_NEAR(3.0, secondsSince(lost), 1.0);
    ASSERT_TRUE(waitUntil([&] { return attempts() == 2; }, 8000));
    EXPECT_NEAR(9.0, secondsSince(lost), 1.0);

    // Past the pause after the second attempt (3 s), within the wait for the third (6 s apart).
    std::this_thread::sleep_for(std::chrono::milliseconds(13000) - (Clock::now() - lost));
    service = std::make_unique<FakeService>();
    ASSERT_TRUE(service->listening());
    answerLifecycle();
    ASSERT_EQ(0, agent->registerApp("tester", kCallerAppID, &user, CallbackRecorder::onApp, nullptr));
    EXPECT_TRUE(waitUntil([&] { return log.contains("reconnectThread finished"); }, 8000));
    EXPECT_EQ(2u, attempts());
    EXPECT_EQ(1u, service->received(ACTION_REGISTER).size()) << "the app's own registration alone";
}

// Nothing connects again with auto-reconnect off, after the service answers an attempt with 1100,
// or once the agent is destroyed while it pauses before its first attempt (about 3 s after the loss).
TEST_F(ReconnectionTest, NothingReconnectsWithAutoReconnectOffAfterA1100OrOnceTheAgentIsGone) {
    std::atomic<int> registrations(0);
    service->on(ACTION_REGISTER, [&](const Bytes&) {
        const int result = registrations++ == 2 ? 1100 : 0;  // the second agent's attempt
        return std::vector<Bytes>{body(ACTION_REGISTER, {kAppID, result})};
    });
    // Returns once the app callback has heard of the loss and the agent, which marks itself
    // unregistered once that callback has returned, has done so.
    const auto loseService = [this] {
        service->closeConnection();
        EXPECT_TRUE(callbacks.waitFor("app", 1));
        waitForAppID(-1, 1000);
    };
    registerAgent(false);
    loseService();
    EXPECT_FALSE(service->waitForConnections(2, 3500)) << "auto-reconnect is off";
    const auto registerAnotherAndLose = [&] {
        agent = std::make_unique<TestAgent>();
        callbacks.clear();
        registerAgent();
        loseService();
    };
    registerAnotherAndLose();
    ASSERT_TRUE(service->waitForRequests(ACTION_REGISTER, 3, 6000));
    EXPECT_FALSE(service->waitForRequests(ACTION_REGISTER, 4, 6500)) << "1100 ends the attempts";
    EXPECT_TRUE(waitForAppID(-1));
    registerAnotherAndLose();
    const Clock::time_point start = Clock::now();
    agent.reset();
    EXPECT_LT(secondsSince(start), 2.0);
    EXPECT_FALSE(service->waitForConnections(5, 3500)) << "no attempt after the agent is gone";
}

class AppEventTest : public AgentTest {};

TEST_F(AppEventTest, AddRemoveAndOtherChangesReachTheListTheOwnRecordAndTheCallback) {
    registerAgent();
    ASSERT_TRUE(service->push(appChange(1, otherApp(20, "peer"))));
    ASSERT_TRUE(service->push(appChange(1, otherApp(21, "second"))));
    ASSERT_TRUE(callbacks.waitFor("app", 2));
    std::vector<InteractionApp> apps(1);
    ASSERT_EQ(0, agent->getInteractionAppList(&apps));
    ASSERT_EQ(3u, apps.size());
    EXPECT_STREQ("peer", apps[1].szAppName);
    EXPECT_STREQ("second", apps[2].szAppName);

    ASSERT_TRUE(service->push(appChange(2, otherApp(20, "peer"))));
    ASSERT_TRUE(service->push(appChange(3, otherApp(21, "second"))));
    ASSERT_TRUE(callbacks.waitFor("app", 4));
    apps.clear();
    ASSERT_EQ(0, agent->getInteractionAppList(&apps));
    ASSERT_EQ(1u, apps.size());
    EXPECT_EQ(21, apps[0].nAppID);

    const std::vector<CallbackRecord> seen = callbacks.of("app");
    EXPECT_EQ((std::vector<int>{1, 1, 2, 3}),
              (std::vector<int>{seen[0].status, seen[1].status, seen[2].status, seen[3].status}));
    for (const CallbackRecord& record : seen) {
        EXPECT_EQ(&user, record.user);
    }

    // An event about this app updates the own record.
    InteractionApp self = otherApp(kAppID + 1, "renamed by the service");
    self.SetMacAddress("01:23:45:67:89:ab");
    self.fLocalDevice = 1;
    ASSERT_TRUE(service->push(appChange(3, self)));
    ASSERT_TRUE(callbacks.waitFor("app", 5));
    const InteractionApp own = agent->getOwnApp();
    EXPECT_EQ(0, memcmp(&self, &own, sizeof(own))) << own.szAppName;
}

// A frame too short for an action ID is dropped; a null one means the link has ended, which
// unregisters the agent without telling the app.
TEST_F(AppEventTest, AShortFrameIsDroppedAndANullOneUnregistersWithoutACallback) {
    registerAgent();
    dispatch(Bytes{45, 0});
    PELK::Agent::ActionAgent::onActionReceived(nullptr, agent.get());
    EXPECT_EQ(-1, agent->getAppID());
    EXPECT_TRUE(callbacks.of("app").empty());
}

}  // namespace
