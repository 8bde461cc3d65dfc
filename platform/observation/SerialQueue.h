#pragma once

#include <mutex>

namespace velkor::NS {

/// A private serial queue: `sync` runs the block on the calling thread as soon as the blocks before it have run, one at a time.
/// Blocks are short, do not call `sync` and call nobody else's code.
class SerialQueue {
public:
    template <class Block>
    auto sync(Block&& block) {
        const std::lock_guard turn(m_turn);
        return block();
    }

private:
    std::mutex m_turn;
};

}  // namespace velkor::NS
