#pragma once

#include <functional>
#include <memory>

namespace velkor {

/// Lets queue threads ask the main thread for what only it may touch.
class VLKMainThreadQuestions {
public:
    VLKMainThreadQuestions();

    /// Runs the question on the main thread and waits for it. False, without having run it, once `close()` was called, and when
    /// it raised, with an entry in the system log. Any thread; on the main one it runs at once, and what it raises passes.
    bool ask(const std::function<void()>& question);
    /// Open and later questions of other threads get no answer. Main thread.
    void close();

private:
    struct State;
    const std::shared_ptr<State> m_state;
};

}  // namespace velkor
