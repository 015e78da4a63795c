// SPDX-License-Identifier: MIT
#include "proc/ContProc.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "log/Log.h"

const ContProc::Step ContProc::sentinel = [](ContProc*, int64_t*, QKResult* result, bool* more) {
    *result = QK_OK;
    *more = false;
};

namespace {
// How long a chain may sleep before its holder is asked again.
constexpr std::chrono::milliseconds stopSlice{50};
} // namespace

QKResult ContProc::run(ContProc* proc)
{
    return run(proc, nullptr);
}

QKResult ContProc::run(ContProc* proc, const std::function<bool()>& stop)
{
    if (!proc) {
        QK_LOG_ERR("ContProc::run: no chain");
        return QK_ERROR;
    }
    // A step that ends the chain without saying how is a failure, not garbage.
    QKResult result = QK_ERROR;
    for (;;) {
        int64_t wait = 0;
        bool more = false;
        if (!proc->step) {
            QK_LOG_ERR("ContProc::run: chain without a step");
            delete proc;
            return QK_ERROR;
        }
        proc->step(proc, &wait, &result, &more);
        if (!more) {
            delete proc;
            return result;
        }
#ifdef QK_CHAIN_WAIT_MAX_MS
        // Builds whose camera is a script (fuzzing) have nothing to wait for.
        wait = std::min<int64_t>(wait, QK_CHAIN_WAIT_MAX_MS);
#endif
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max<int64_t>(wait, 0));
        for (;;) {
            if (stop && stop()) {
                QK_LOG_ERR("ContProc::run: chain stopped by its holder");
                delete proc;
                return QK_ERROR;
            }
            const auto left = until - std::chrono::steady_clock::now();
            if (left <= std::chrono::steady_clock::duration::zero())
                break;
            std::this_thread::sleep_for(stop ? std::min<std::chrono::steady_clock::duration>(left, stopSlice) : left);
        }
    }
}
