// Registers with the service on 127.0.0.1:20014 through libPELKAgent's public header alone, waits
// for the service to report this app back through the app callback, and unregisters. Exits 0 when
// all of it worked, 1 otherwise.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "ActionAgent.h"

// A user's include path holds the public headers only: no test seam, no internal of the link.
#if __has_include("CommonLib/LogSink.h") || __has_include("TransferClient.h")
#error "libPELKAgent puts headers on its users' include path that are not for them"
#endif

namespace {

std::atomic<bool> g_sawItself{false};

// Runs on the library's callback thread.
void onAppChange(const PELK::InteractionApp* app, int status, void*) {
    if (app != nullptr && status == PELK::Agent::APP_STATUS_CHANGE_ADD && app->fLocalDevice != 0) {
        g_sawItself = true;
    }
}

// Waits up to 10 s for the own record.
bool awaitOwnRecord() {
    for (int waited = 0; !g_sawItself && waited < 10000; waited += 10) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return g_sawItself;
}

}  // namespace

int main(int argc, char** argv) {
    const char* name = argc > 1 ? argv[1] : "consumer";
    PELK::Agent::ActionAgent* agent = PELK::Agent::ActionAgent::getInstance();
    const int registered = agent->registerApp(name, 1, nullptr, onAppChange, nullptr, false);
    const int appID = agent->getAppID();
    const bool sawItself = registered == 0 && awaitOwnRecord();
    const int unregistered = registered == 0 ? agent->unregisterApp() : -1;
    if (registered != 0 || appID < 1 || !sawItself || unregistered != 0) {
        std::fprintf(stderr, "%s: registration %d, app ID %d, own record %s, unregistration %d\n", name, registered,
                     appID, sawItself ? "seen" : "not seen", unregistered);
        return 1;
    }
    std::printf("%s: registered as app %d and unregistered\n", name, appID);
    return 0;
}
