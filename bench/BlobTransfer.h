#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "platform/base/Error.h"
#include "platform/concurrency/RunLoop.h"

/// Runs one of the library's transfers to its end; one that fails ends the program.
template <class Transfer>
void runTransfer(const std::shared_ptr<Transfer>& transfer) {
    bool ended = false;
    transfer->setCompletionBlock([&](const auto&) { ended = true; });
    transfer->setFailureBlock([](const velkor::NS::Error&) { std::abort(); });
    transfer->start();
    velkor::NS::RunLoop::main().runUntil([&] { return ended; }, 600);
}

/// Measures the transfer of blobs one after another. Arguments: bytes of a blob, how many.
template <class Once>
void measureBlobs(benchmark::State& state, Once once) {
    for (auto _ : state) {
        for (std::int64_t i = 0; i < state.range(1); ++i) once();
    }
    state.SetItemsProcessed(state.iterations() * state.range(1));
    state.SetBytesProcessed(state.iterations() * state.range(1) * state.range(0));
}
