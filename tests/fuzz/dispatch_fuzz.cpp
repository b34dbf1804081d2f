// Random frames into the dispatcher of a registered agent that has every callback installed, as
// if the service had pushed them. The first input byte picks the event (so that most inputs reach
// a decoder and its handler), the rest is the body behind the action ID; the frame is allocated
// to its exact size so that any read past it is caught.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "ActionAgent.h"
#include "CommonLib/LogSink.h"
#include "support/AgentFixture.h"

namespace {

using PELK::Agent::ActionAgent;

// Every event the dispatcher knows, and two it must reject; 46 is left out, since a loss starts
// the reconnection thread, which is not what this target explores.
const int32_t kActionIDs[] = {14, 19, 20, 32, 41, 45, 52, 54, 13, 99};

// Touches every byte handed over, so that a short or dangling buffer shows.
void onReceiveData(int, const char* data, int len, void*, const PELK::InteractionApp*) {
    volatile char sum = 0;
    for (int i = 0; i < len; ++i) {
        sum = static_cast<char>(sum + data[i]);
    }
}
void onFile(PELK::file_transfer_event, void*) {}

struct Harness {
    pelktest::FakeService service;
    pelktest::TestAgent agent;
    size_t inputs = 0;

    Harness() {
        service.answer(PELK::ACTION_REGISTER, pelktest::body(PELK::ACTION_REGISTER, {7, 0}));
        for (int32_t id : {PELK::ACTION_UNREGISTER, PELK::ACTION_SET_RECEIVE_OPTION, PELK::ACTION_SEND_FILE,
                           PELK::ACTION_DOWNLOAD_FILE}) {
            service.answer(id, pelktest::body(id, {0, 0}));
        }
        registerAll();
    }

    void registerAll() {
        agent.registerApp("fuzz", 1, nullptr, [](const PELK::InteractionApp*, int, void*) {},
                          [](const PELK::DLNADevice*, int, void*) {}, false);
        PELK::ReceiveOption option;
        option.pfnReceiveData = onReceiveData;
        option.pfnReceiveFile = onFile;
        agent.setReceiveOption(&option);
        // Task 0 is the service's answer above: progress and copy events for it find a callback.
        uint32_t task = 0;
        PELK::InteractionApp target;
        agent.sendFile("/fuzz", &target, onFile, nullptr, &task, false, 0);
        PELK::DLNADevice server;
        std::vector<PELK::FileInfo> none;
        int copyTask = 0;
        agent.copyFileList(&server, &none, onFile, &copyTask);
        agent.asynSendData("x", 1, &target, false, [](PELK::data_transfer_event, void*) {}, nullptr);
    }

    void dispatch(const uint8_t* data, size_t size) {
        const int32_t actionID = kActionIDs[data[0] % (sizeof(kActionIDs) / sizeof(kActionIDs[0]))];
        const uint32_t length = static_cast<uint32_t>(size - 1 + sizeof(actionID));
        std::unique_ptr<char[]> frame(new char[length + 4]);
        memcpy(frame.get(), &length, 4);
        memcpy(frame.get() + 4, &actionID, 4);
        memcpy(frame.get() + 8, data + 1, size - 1);
        ActionAgent::onActionReceived(frame.get(), &agent);
        // The app list keeps what the service announces; start afresh now and then.
        if (++inputs % 4096 == 0) {
            agent.unregisterApp();
            registerAll();
        }
    }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    PELK::Common::setPropertyFilePathForTesting(pelktest::kQuietPropertyFile);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Harness* harness = new Harness;  // lives to the end: the process exits under it
    if (size > 0) {
        harness->dispatch(data, size);
    }
    return 0;
}
