// The library end to end: pelk-emulator as the service, "alice" as a pelk listen process, and
// "tester", an agent in this process. Other pelk processes come and go as "bob".
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <iostream>

#include "CommonLib/OSAL.h"
#include "ServiceCodes.h"
#include "support/AgentFixture.h"
#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/Waits.h"

using namespace PELK;
using namespace PELK::Emulator;
using pelktest::pattern;
using pelktest::readFile;
using pelktest::CallbackRecord;
using pelktest::CallbackRecorder;
using pelktest::ChildProcess;

namespace {

// Under the sanitizers every process here is several times slower.
constexpr int kWaitMs = 20000;
// Reconnection takes the agent 3 s and then up to 6 s more, by design.
constexpr int kReconnectMs = 30000;

class EndToEndTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* folder : {"media", "media/Music", "alice", "tester", "downloads"}) {
            mkdir(dir.file(folder).c_str(), 0755);
        }
        dir.write("media/Music/track.mp3", pattern(3 << 20, 1));
        dir.write("media/readme.txt", "served by the emulator");
        startEmulator();
        ASSERT_FALSE(HasFailure());
        alice.reset(new ChildProcess({PELK_CLI, "listen", "--name", "alice", "--number", "11", "--receive-dir",
                                      dir.file("alice"), "--verbose"},
                                     dir.file("alice.out")));
        ASSERT_TRUE(alice->awaitOutput("listening as", kWaitMs)) << alice->output();
        callbacks.clear();
        ASSERT_EQ(0, agent.registerApp("tester", 12, nullptr, CallbackRecorder::onApp, CallbackRecorder::onDevice));
        ReceiveOption option;
        Wire::CopyText(option.directory, dir.file("tester").c_str());
        option.pfnReceiveData = CallbackRecorder::onReceiveData;
        option.pfnReceiveFile = CallbackRecorder::onReceiveFile;
        ASSERT_EQ(0, agent.setReceiveOption(&option));
        ASSERT_TRUE(appeared("alice"));
    }

    void TearDown() override {
        agent.unregisterApp();
        // Both end cleanly on SIGTERM; a sanitizer's report would change their status.
        for (ChildProcess* program : {alice.get(), emulator.get()}) {
            program->signal(SIGTERM);
            EXPECT_EQ(0, program->wait(kWaitMs));
        }
        if (HasFailure()) {
            std::cout << "--- emulator\n" << emulator->output() << "--- alice\n" << alice->output();
        }
    }

    // 8 MiB/s: slow enough to pause a transfer midway, fast enough for 10 MiB in a test.
    void startEmulator() {
        emulator = pelktest::startEmulator({PELK_EMULATOR, "--media", dir.file("media"), "--rate", "8M"},
                                           dir.file("emulator.log"));
    }

    // Runs each pelk command as bob, to its end: it exits with its status and says each of its texts.
    struct Run {
        std::vector<std::string> args;
        int status;
        std::vector<std::string> says;
    };
    void expectRuns(const std::vector<Run>& runs) {
        for (const Run& run : runs) {
            std::vector<std::string> argv = {PELK_CLI, run.args.at(0), "--name", "bob", "--verbose"};
            argv.insert(argv.end(), run.args.begin() + 1, run.args.end());
            ChildProcess bob(argv, dir.file("bob.out"));
            EXPECT_EQ(run.status, bob.wait(60000)) << run.args.at(0) << ":\n" << bob.output();
            for (const std::string& text : run.says) {
                EXPECT_NE(std::string::npos, bob.output().find(text)) << run.args.at(0) << " does not say " << text;
            }
        }
    }

    // The agent's app callback has reported name with this status.
    bool appeared(const std::string& name, int status = Agent::APP_STATUS_CHANGE_ADD) {
        return pelktest::waitUntil([&] {
            const std::vector<CallbackRecord> apps = callbacks.of("app");
            return std::any_of(apps.begin(), apps.end(),
                               [&](const CallbackRecord& r) { return r.status == status && name == r.app.szAppName; });
        }, kWaitMs, 20);
    }

    InteractionApp appNamed(const std::string& name) {
        std::vector<InteractionApp> apps;
        EXPECT_EQ(0, agent.getInteractionAppList(&apps));
        const auto found = std::find_if(apps.begin(), apps.end(), [&](const InteractionApp& app) {
            return name == app.szAppName;
        });
        EXPECT_NE(apps.end(), found) << "no app " << name;
        return found == apps.end() ? InteractionApp() : *found;
    }

    pelktest::TempDir dir;
    std::unique_ptr<ChildProcess> emulator;
    std::unique_ptr<ChildProcess> alice;
    pelktest::TestAgent agent;
    CallbackRecorder& callbacks = CallbackRecorder::instance();
};

TEST_F(EndToEndTest, AppsFindEachOtherDataFlowsBothWaysAndAKilledAppIsRemoved) {
    ASSERT_TRUE(alice->awaitOutput("app joined: \"tester\" 127.0.0.1:", kWaitMs));
    const InteractionApp alicesRecord = appNamed("alice");
    EXPECT_EQ(0, agent.sendData("hello alice", 11, &alicesRecord, false, 10));
    EXPECT_TRUE(alice->awaitOutput("data from \"tester\" 127.0.0.1:" + std::to_string(agent.getAppID()) +
                                   " (tcp, 11 bytes): hello alice"));

    expectRuns({{{"send", "--to", "tester", "hello tester"}, 0, {}},
                {{"apps"}, 0, {"number 11  \"alice\"", "number 12  \"tester\""}}});
    ASSERT_TRUE(callbacks.waitFor("receive-data", 1, kWaitMs));
    const CallbackRecord received = callbacks.of("receive-data").at(0);
    EXPECT_EQ("hello tester", std::string(received.data.begin(), received.data.end()));
    EXPECT_STREQ("bob", received.app.szAppName);

    // An app killed outright is reported as removed.
    ChildProcess victim({PELK_CLI, "listen", "--name", "victim", "--receive-dir", dir.path()}, dir.file("victim.out"));
    ASSERT_TRUE(alice->awaitOutput("app joined: \"victim\""));
    victim.signal(SIGKILL);
    EXPECT_TRUE(alice->awaitOutput("app left: \"victim\""));
}

// The files arrive whole, and the progress ends at the list's total.
TEST_F(EndToEndTest, FilesArriveByteIdenticalWithProgressEndingAtTheTotal) {
    const std::vector<std::string> names = {"big.bin", "empty.txt", "three.bin"};
    const std::vector<std::string> sent = {dir.write(names[0], pattern(10 << 20, 2)), dir.write(names[1], ""),
                                           dir.write(names[2], pattern(300000, 4))};
    expectRuns({{{"send-file", "--to", "alice", sent[0], sent[1], sent[2]}, 0,
                 {"3/3 three.bin 300000/300000 10785760/10785760", "sent 3 file(s), 10785760 bytes"}}});
    ASSERT_TRUE(alice->awaitOutput("file received: " + dir.file("alice/three.bin") + " (300000 bytes)", kWaitMs));
    for (const std::string& name : names) {
        EXPECT_TRUE(readFile(dir.file(name)) == readFile(dir.file("alice/" + name))) << name;
    }
    EXPECT_EQ(0, access(dir.file("alice/empty.txt").c_str(), F_OK));
}

TEST_F(EndToEndTest, ASendPausesResumesAndCancelsAndAReceiverCancelsToo) {
    const std::vector<std::string> big = {dir.write("big.bin", pattern(8 << 20, 5))};
    const InteractionApp target = appNamed("alice");
    uint32_t task = 0;
    ASSERT_EQ(0, agent.sendFileList(&big, &target, CallbackRecorder::onFile, nullptr, &task, false, 0));
    const unsigned long taskID = task;
    ASSERT_TRUE(callbacks.waitFor("file", 1, kWaitMs));
    ASSERT_EQ(0, agent.pauseSend(taskID));
    pelktest::sleepMs(1000);  // a send that went on would have reported progress since
    const size_t paused = callbacks.of("file").size();
    EXPECT_EQ(FILE_EVENT_PAUSED, callbacks.of("file").back().fileEvent.nEventType);

    ASSERT_EQ(0, agent.resumeSend(taskID));
    ASSERT_TRUE(callbacks.waitFor("file", paused + 3, kWaitMs));
    ASSERT_EQ(0, agent.cancelSend(taskID));
    ASSERT_TRUE(alice->awaitOutput("transfer " + std::to_string(taskID) + " cancelled", kWaitMs));
    EXPECT_NE(0, access(dir.file("alice/big.bin").c_str(), F_OK));  // the partial copy is gone

    // bob sends to this agent, which cancels once it hears of the transfer.
    ChildProcess bob({PELK_CLI, "send-file", "--name", "bob", "--to", "tester", big[0]}, dir.file("bob.out"));
    ASSERT_TRUE(callbacks.waitFor("receive-file", 1, kWaitMs));
    EXPECT_EQ(0, agent.cancelReceive(static_cast<unsigned long>(callbacks.of("receive-file").at(0).fileEvent.nId)));
    EXPECT_EQ(1, bob.wait(kWaitMs));
    EXPECT_NE(std::string::npos, bob.output().find("send-file was cancelled")) << bob.output();
}

TEST_F(EndToEndTest, TheMediaServerIsBrowsedDownloadedFromAndPlayed) {
    expectRuns({
        {{"devices"}, 0, {"\"pelk-emulator media\"", "\"pelk-emulator renderer\""}},
        {{"browse"}, 0, {"folder Music  \"Music\"", "item   readme.txt"}},
        {{"browse", "Music"}, 0, {"item   Music/track.mp3  \"track.mp3\""}},
        {{"download", "--to-dir", dir.file("downloads"), "Music/track.mp3", "readme.txt"}, 0,
         {"progress 2/2 readme.txt 22/22 3145750/3145750"}},
        {{"play", "Music/track.mp3"}, 0, {}},
        {{"play", "--pause"}, 0, {}},
        {{"play", "--resume", "--renderer", "nobody"}, 1, {}},
    });
    EXPECT_TRUE(readFile(dir.file("media/Music/track.mp3")) == readFile(dir.file("downloads/track.mp3")));
    EXPECT_EQ("served by the emulator", readFile(dir.file("downloads/readme.txt")));
    EXPECT_TRUE(emulator->awaitOutput("renderer plays item 1 of 1, \"track.mp3\""));
}

// Both apps register again by themselves after the service restarts.
TEST_F(EndToEndTest, AfterARestartOfTheServiceTheAppsRegisterAgain) {
    emulator->signal(SIGTERM);
    ASSERT_EQ(0, emulator->wait(kWaitMs));
    EXPECT_TRUE(appeared("tester", Agent::APP_STATUS_DISCONNECTED));
    startEmulator();
    EXPECT_TRUE(appeared("tester", Agent::APP_STATUS_RECONNECTED));
    EXPECT_TRUE(alice->awaitOutput("reconnected as \"alice\"", kReconnectMs));
    expectRuns({{{"apps"}, 0, {"\"alice\"", "\"tester\""}}});
}

TEST_F(EndToEndTest, BadInputGetsAClearAnswerAndTheServiceGoesOn) {
    expectRuns({
        {{"send", "--to", "nobody", "hi"}, 1, {"no other app is named \"nobody\""}},
        {{"send", "--to", "127.0.0.1:200", "hi"}, 1, {"send failed: 6 (the service's result: no registered app"}},
        {{"send-file", "--to", "alice", dir.file("missing")}, 1, {"send-file failed: 7 ("}},
        {{"download", "Music/none.mp3"}, 1, {"finding item Music/none.mp3 failed: 12 ("}},
        {{"send-file", "--to", "alice"}, 2, {}},
    });

    // A frame too short to hold an action ID: that connection is closed, nobody else's.
    using OSAL = Common::OSAbstractLayer;
    const long sock = OSAL::osal_create_tcp_socket();
    ASSERT_EQ(0, OSAL::osal_connect(sock, "127.0.0.1", 20014));
    const char malformed[] = {2, 0, 0, 0, 'x', 'y'};
    ASSERT_EQ(1, OSAL::osal_send_all(sock, malformed, sizeof(malformed), 10));
    char ignored = 0;
    int received = 0;
    EXPECT_EQ(-1, OSAL::osal_recvn(sock, &ignored, 1, 0, 20, &received));  // closed by the emulator
    OSAL::osal_close_socket(sock);
    EXPECT_TRUE(emulator->awaitOutput("(malformed or oversized frame)"));
    expectRuns({{{"apps"}, 0, {"\"alice\""}}});
}

}  // namespace
