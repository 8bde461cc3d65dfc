#include "platform/base/DurableStep.h"

#ifdef VELKOR_DURABLE_STEPS

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace velkor::NS {
namespace {

class StepCounter {
public:
    StepCounter() {
        if (const char* step = std::getenv("VELKOR_DIE_AT_STEP")) m_lastStep = std::strtoull(step, nullptr, 10);
    }
    ~StepCounter() {
        const char* path = std::getenv("VELKOR_STEP_COUNT_FILE");
        if (!path) return;
        if (std::FILE* file = std::fopen(path, "w")) {
            std::fprintf(file, "%llu\n", m_count.load());
            std::fclose(file);
        }
    }
    void step() noexcept {
        if (++m_count == m_lastStep) kill(getpid(), SIGKILL);  // nothing is flushed or cleaned up, as at a power loss
    }

private:
    std::atomic<unsigned long long> m_count = 0;
    unsigned long long m_lastStep = 0;
};

StepCounter counter;

}  // namespace

void durableStep(std::string_view) noexcept { counter.step(); }

}  // namespace velkor::NS

#endif
