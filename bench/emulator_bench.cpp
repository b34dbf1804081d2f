// The emulator's own costs, without sockets: one request through its whole path (decode, serve,
// encode the reply and the events) for data relays of several sizes and app searches among many
// apps, a folder listing of the media server, and the copy rate of a file send in 64 KiB steps.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Service.h"
#include "support/TempDir.h"

namespace {

using namespace PELK;
using namespace PELK::Emulator;

class NullHost : public ServiceHost {
public:
    void deliver(ClientId, std::vector<char> frame) override { bytes += frame.size(); }
    size_t backlog(ClientId) const override { return 0; }
    int64_t nowMs() const override { return now; }
    void log(const std::string&) override {}
    void trace(const std::string&) override {}
    int64_t now = 0;
    size_t bytes = 0;
};

std::vector<char> bodyOf(const ReqResBase& message) {
    std::vector<char> body(message.GetSize());
    body.resize(message.GetBuffer(body.data()));
    return body;
}

void send(Service& service, ClientId client, const std::vector<char>& body) {
    if (!service.receive(client, body.data(), static_cast<uint32_t>(body.size()))) {
        abort();
    }
}

// Registers apps 1..count on clients 1..count.
void join(Service& service, int count) {
    for (int i = 1; i <= count; ++i) {
        service.connect(static_cast<ClientId>(i));
        RegisterReq request;
        request.SetAppName(("app" + std::to_string(i)).c_str());
        request.fAppEvents = true;
        send(service, static_cast<ClientId>(i), bodyOf(request));
    }
}

void BM_RelayData(benchmark::State& state) {
    NullHost host;
    Service service(ServiceConfig(), host);
    join(service, 2);
    SendDataReq request;
    request.app.nAppID = 1;
    const std::string data(static_cast<size_t>(state.range(0)), 'd');
    request.data.Set(data.data(), static_cast<unsigned int>(data.size()));
    const std::vector<char> body = bodyOf(request);
    for (auto _ : state) {
        send(service, 2, body);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_RelayData)->Arg(16)->Arg(1024)->Arg(65535);

void BM_SearchApps(benchmark::State& state) {
    NullHost host;
    Service service(ServiceConfig(), host);
    join(service, static_cast<int>(state.range(0)));
    const std::vector<char> body = bodyOf(SearchAppReq());
    for (auto _ : state) {
        send(service, 1, body);
    }
}
BENCHMARK(BM_SearchApps)->Arg(2)->Arg(100)->Arg(255);

void BM_ListFolder(benchmark::State& state) {
    pelktest::TempDir media;
    for (int64_t i = 0; i < state.range(0); ++i) {
        media.write("track" + std::to_string(i) + ".mp3", "m");
    }
    NullHost host;
    ServiceConfig config;
    config.mediaFolder = media.path();
    Service service(config, host);
    std::string error;
    service.start(error);
    join(service, 1);
    GetFileListReq request(ACTION_GET_ROOT_FILE_LIST);
    Wire::CopyText(request.server.UUID, Service::kMediaServerUDN);
    const std::vector<char> body = bodyOf(request);
    for (auto _ : state) {
        send(service, 1, body);
    }
}
BENCHMARK(BM_ListFolder)->Arg(10)->Arg(200);

// A 16 MiB file sent between two apps, step by step: the emulator's copy rate with its events.
void BM_FileSend(benchmark::State& state) {
    pelktest::TempDir files;
    const std::string source = files.write("big.bin", std::string(16u << 20, 'f'));
    const std::string inbox = files.file("inbox");
    mkdir(inbox.c_str(), 0755);
    NullHost host;
    Service service(ServiceConfig(), host);
    join(service, 2);
    SetReceiveOptionReq option;
    option.SetDirectory(inbox.c_str());
    option.rename = false;
    send(service, 1, bodyOf(option));
    SendFileReq request;
    request.files.emplace_back(source.c_str());
    request.app.nAppID = 1;
    const std::vector<char> body = bodyOf(request);
    for (auto _ : state) {
        send(service, 2, body);
        while (service.taskCount() > 0) {
            host.now += 1000;
            service.tick();
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * (16 << 20));
}
BENCHMARK(BM_FileSend)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
