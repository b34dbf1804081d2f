// pelk-emulator: plays the on-device service on 127.0.0.1:20014 for any number of apps.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Server.h"

namespace {

const char* const kUsage =
    "usage: pelk-emulator [--media DIR] [--trace] [--rate BYTES[K|M]]\n"
    "  --media DIR   serve DIR as the emulated media server \"pelk-emulator media\"\n"
    "  --trace       print every frame in and out, decoded, on standard output\n"
    "  --rate N      copy file sends and media copies at N bytes per second (K and M: KiB, MiB)\n"
    "The service listens on 127.0.0.1:20014 until interrupted (SIGINT or SIGTERM).\n";

// "65536", "64K", "8M"; 0 when it is not a positive number.
uint64_t parseRate(const char* text) {
    char* end = nullptr;
    const unsigned long long value = strtoull(text, &end, 10);
    uint64_t scale = 1;
    if (*end == 'K' || *end == 'k') {
        scale = 1024;
        ++end;
    } else if (*end == 'M' || *end == 'm') {
        scale = 1024 * 1024;
        ++end;
    }
    return end == text || *end != '\0' ? 0 : value * scale;
}

}  // namespace

int main(int argc, char** argv) {
    PELK::Emulator::ServiceConfig config;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--media" && hasValue) {
            config.mediaFolder = argv[++i];
        } else if (option == "--trace") {
            config.fTrace = true;
        } else if (option == "--rate" && hasValue && (config.nRateBytesPerSecond = parseRate(argv[i + 1])) > 0) {
            ++i;
        } else {
            fputs(kUsage, option == "--help" || option == "-h" ? stdout : stderr);
            return option == "--help" || option == "-h" ? 0 : 2;
        }
    }
    PELK::Emulator::Server server(config, stderr, stdout);
    return server.run();
}
