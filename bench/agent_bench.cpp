// The agent's costs beside raw loopback sockets moving the same bytes to and from the same fake
// service: a sendData round trip, large UDP payloads going out as pieces, a large payload coming
// in and being put together (and its putting together alone, beside a plain copy), and an app
// search answered with 100 apps. Each "Raw" benchmark is a plain client socket writing the very
// frames the agent writes and reading the very replies.
// Binds 127.0.0.1:20014: run it alone (or in tools/isolated.sh).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ActionAgent.h"
#include "CommonLib/LogSink.h"
#include "support/FakeService.h"

namespace {

using PELK::Agent::ActionAgent;
using pelktest::Bytes;
using pelktest::FakeService;

class BenchAgent : public ActionAgent {};

const int kAppID = 7;

// A service that answers everything these benchmarks ask.
std::unique_ptr<FakeService> startService(int apps = 0) {
    auto service = std::make_unique<FakeService>();
    service->answer(PELK::ACTION_REGISTER, pelktest::body(PELK::ACTION_REGISTER, {kAppID, 0}));
    for (int32_t id : {PELK::ACTION_UNREGISTER, PELK::ACTION_SEND_DATA, PELK::ACTION_SEND_UDP_HUGE_DATA,
                       PELK::ACTION_SET_RECEIVE_OPTION}) {
        service->answer(id, pelktest::body(id, {0}));
    }
    PELK::SearchAppRes found;
    found.apps.resize(static_cast<size_t>(apps));
    found.nResult = 0;
    Bytes reply(found.GetSize());
    found.GetBuffer(reply.data());
    service->answer(PELK::ACTION_SEARCH_APP, reply);
    return service;
}

PELK::InteractionApp peer() {
    PELK::InteractionApp app;
    app.nAppID = 9;
    return app;
}

// A plain blocking client socket on the service.
class RawClient {
public:
    RawClient() : m_fd(socket(AF_INET, SOCK_STREAM, 0)) {
        struct sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(FakeService::kPort);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = connect(m_fd, reinterpret_cast<struct sockaddr*>(&address), sizeof(address)) == 0;
    }
    ~RawClient() { close(m_fd); }
    bool connected() const { return m_connected; }

    bool sendAll(const Bytes& bytes) {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t sent = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            done += static_cast<size_t>(sent);
        }
        return true;
    }
    bool receive(size_t size) {
        m_buffer.resize(size);
        for (size_t done = 0; done < size;) {
            const ssize_t got = recv(m_fd, m_buffer.data() + done, size - done, 0);
            if (got <= 0) {
                return false;
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }

private:
    int m_fd;
    bool m_connected = false;
    Bytes m_buffer;
};

Bytes encodeFrame(const PELK::ReqResBase& message) {
    Bytes body(message.GetSize());
    message.GetBuffer(body.data());
    return pelktest::frame(body);
}

// The frames of a large payload as the agent cuts it: pieces of 8173 bytes behind an 8-byte head.
std::vector<Bytes> hugeFrames(size_t size, bool asEvents) {
    std::vector<Bytes> frames;
    const std::string content(size, 'h');
    const size_t pieces = (size + ActionAgent::kBlockContentSize - 1) / ActionAgent::kBlockContentSize;
    for (size_t i = 0; i < pieces; ++i) {
        const size_t offset = i * ActionAgent::kBlockContentSize;
        const size_t length = std::min<size_t>(ActionAgent::kBlockContentSize, size - offset);
        const uint32_t list = 77;
        const uint32_t sequence = i == 0 ? 0 : (i + 1 == pieces ? ActionAgent::kLastSequence : uint32_t(i));
        std::string payload(8, '\0');
        memcpy(&payload[0], &list, 4);
        memcpy(&payload[4], &sequence, 4);
        payload.append(content, offset, length);
        if (asEvents) {
            PELK::ReceiveDataRes event;
            event.nDataType = ActionAgent::kHugeDataType;
            event.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
            frames.push_back(encodeFrame(event));
        } else {
            PELK::SendUDPHugeDataReq request;
            request.app = peer();
            request.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
            frames.push_back(encodeFrame(request));
        }
    }
    return frames;
}

bool registered(benchmark::State& state, FakeService& service, BenchAgent& agent) {
    if (!service.listening() || agent.registerApp("bench", 1, nullptr, nullptr, nullptr, false) != 0) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return false;
    }
    return true;
}

const std::string kPayload(300, 'd');

void BM_SendData(benchmark::State& state) {
    auto service = startService();
    BenchAgent agent;
    if (!registered(state, *service, agent)) {
        return;
    }
    const PELK::InteractionApp target = peer();
    for (auto _ : state) {
        if (agent.sendData(kPayload.data(), static_cast<unsigned int>(kPayload.size()), &target, false, 5) != 0) {
            state.SkipWithError("sendData failed");
            break;
        }
    }
}
BENCHMARK(BM_SendData)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_SendDataRaw(benchmark::State& state) {
    auto service = startService();
    RawClient client;
    if (!service->listening() || !client.connected()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    PELK::SendDataReq request;
    request.app = peer();
    request.data.Set(kPayload.data(), static_cast<unsigned int>(kPayload.size()));
    const Bytes frame = encodeFrame(request);
    for (auto _ : state) {
        if (!client.sendAll(frame) || !client.receive(12)) {
            state.SkipWithError("raw exchange failed");
            break;
        }
    }
}
BENCHMARK(BM_SendDataRaw)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_SendUDPHugeData(benchmark::State& state) {
    auto service = startService();
    BenchAgent agent;
    if (!registered(state, *service, agent)) {
        return;
    }
    const std::string payload(static_cast<size_t>(state.range(0)), 'h');
    const PELK::InteractionApp target = peer();
    for (auto _ : state) {
        if (agent.sendUDPHugeData(payload.data(), static_cast<unsigned int>(payload.size()), &target) != 0) {
            state.SkipWithError("sendUDPHugeData failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SendUDPHugeData)->Arg(64 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SendUDPHugeDataRaw(benchmark::State& state) {
    auto service = startService();
    RawClient client;
    if (!service->listening() || !client.connected()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    const std::vector<Bytes> frames = hugeFrames(static_cast<size_t>(state.range(0)), false);
    for (auto _ : state) {
        for (const Bytes& frame : frames) {
            if (!client.sendAll(frame) || !client.receive(12)) {
                state.SkipWithError("raw exchange failed");
                return;
            }
        }
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SendUDPHugeDataRaw)->Arg(64 << 10)->Arg(1 << 20)->Unit(benchmark::kMillisecond)->UseRealTime();

std::atomic<int> g_payloads{0};

void countPayload(int, const char*, int, void*, const PELK::InteractionApp*) {
    g_payloads.fetch_add(1);
}

void BM_ReceiveHugePayload(benchmark::State& state) {
    auto service = startService();
    BenchAgent agent;
    if (!registered(state, *service, agent)) {
        return;
    }
    PELK::ReceiveOption option;
    option.pfnReceiveData = countPayload;
    agent.setReceiveOption(&option);
    Bytes stream;
    for (const Bytes& frame : hugeFrames(1 << 20, true)) {
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    for (auto _ : state) {
        const int before = g_payloads.load();
        service->sendRaw(stream);
        // Yields while it waits, so that on a busy machine the agent's threads get the core.
        while (g_payloads.load() == before) {
            std::this_thread::yield();
        }
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_ReceiveHugePayload)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReceiveHugePayloadRaw(benchmark::State& state) {
    auto service = startService();
    RawClient client;
    if (!service->listening() || !client.connected()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    Bytes stream;
    for (const Bytes& frame : hugeFrames(1 << 20, true)) {
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    for (auto _ : state) {
        service->sendRaw(stream);
        if (!client.receive(stream.size())) {
            state.SkipWithError("raw read failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_ReceiveHugePayloadRaw)->Unit(benchmark::kMillisecond)->UseRealTime();

// The agent's own share of a large receive, without the link: a 1 MiB payload put together from
// its pieces as the dispatcher does, beside a plain copy of the same pieces into a buffer made once.
std::vector<std::string> hugePieces(size_t size) {
    std::vector<std::string> pieces;
    for (size_t offset = 0; offset < size; offset += ActionAgent::kBlockContentSize) {
        pieces.emplace_back(std::min<size_t>(ActionAgent::kBlockContentSize, size - offset), 'h');
    }
    return pieces;
}

void BM_JoinHugePayload(benchmark::State& state) {
    const std::vector<std::string> pieces = hugePieces(1 << 20);
    for (auto _ : state) {
        PELK::Agent::DataBlockListInfo payload;
        for (const std::string& piece : pieces) {
            if (!ActionAgent::appendBlockData(payload, piece.data(), static_cast<int>(piece.size()))) {
                state.SkipWithError("out of memory");
                break;
            }
        }
        benchmark::DoNotOptimize(payload.pData);
        free(payload.pData);
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_JoinHugePayload)->Unit(benchmark::kMicrosecond);

void BM_JoinHugePayloadRaw(benchmark::State& state) {
    const std::vector<std::string> pieces = hugePieces(1 << 20);
    std::vector<char> joined(1 << 20);
    for (auto _ : state) {
        size_t offset = 0;
        for (const std::string& piece : pieces) {
            memcpy(joined.data() + offset, piece.data(), piece.size());
            offset += piece.size();
        }
        benchmark::DoNotOptimize(joined.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * (1 << 20));
}
BENCHMARK(BM_JoinHugePayloadRaw)->Unit(benchmark::kMicrosecond);

void BM_SearchInteractionApp(benchmark::State& state) {
    auto service = startService(100);
    BenchAgent agent;
    if (!registered(state, *service, agent)) {
        return;
    }
    for (auto _ : state) {
        std::vector<PELK::InteractionApp> apps;
        if (agent.searchInteractionApp(&apps) != 0 || apps.size() != 100) {
            state.SkipWithError("search failed");
            break;
        }
    }
}
BENCHMARK(BM_SearchInteractionApp)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_SearchInteractionAppRaw(benchmark::State& state) {
    auto service = startService(100);
    RawClient client;
    if (!service->listening() || !client.connected()) {
        state.SkipWithError("127.0.0.1:20014 unavailable");
        return;
    }
    const Bytes frame = encodeFrame(PELK::SearchAppReq());
    for (auto _ : state) {
        if (!client.sendAll(frame) || !client.receive(4 + 12 + 100 * sizeof(PELK::InteractionApp))) {
            state.SkipWithError("raw exchange failed");
            break;
        }
    }
}
BENCHMARK(BM_SearchInteractionAppRaw)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    PELK::Common::setPropertyFilePathForTesting("/nonexistent/pelk-bench/log.properties");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
