// Cost of writing and reading the message bodies that carry the most records.
#include <benchmark/benchmark.h>

#include <vector>

#include "ActionManager/Struct.h"

namespace {

void BM_EncodeCopyFileReq(benchmark::State& state) {
    PELK::CopyFileReq request;
    request.items.resize(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> body(request.GetSize());
    for (auto _ : state) {
        benchmark::DoNotOptimize(request.GetBuffer(body.data()));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(body.size()));
}
BENCHMARK(BM_EncodeCopyFileReq)->Arg(1)->Arg(100);

void BM_DecodeSearchAppRes(benchmark::State& state) {
    PELK::SearchAppRes reply;
    reply.apps.resize(static_cast<size_t>(state.range(0)));
    std::vector<unsigned char> body(reply.GetSize());
    reply.GetBuffer(body.data());
    for (auto _ : state) {
        PELK::SearchAppRes decoded;
        decoded.FromBuffer(body.data(), 0xFFFFFFFFu);
        benchmark::DoNotOptimize(decoded.apps.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(body.size()));
}
BENCHMARK(BM_DecodeSearchAppRes)->Arg(1)->Arg(100);

void BM_DecodeReceiveDataRes(benchmark::State& state) {
    PELK::ReceiveDataRes event;
    std::vector<char> payload(static_cast<size_t>(state.range(0)), 'x');
    event.data.Set(payload.data(), static_cast<unsigned int>(payload.size()));
    std::vector<unsigned char> body(event.GetSize());
    event.GetBuffer(body.data());
    for (auto _ : state) {
        PELK::ReceiveDataRes decoded;
        decoded.FromBuffer(body.data(), 0xFFFFFFFFu);
        benchmark::DoNotOptimize(decoded.data.pData);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(body.size()));
}
BENCHMARK(BM_DecodeReceiveDataRes)->Arg(64)->Arg(65535);

}  // namespace
