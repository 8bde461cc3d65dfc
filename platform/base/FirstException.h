#pragma once

#include <exception>

namespace velkor::NS {

/// For steps that are all to be taken although some of them raise: keeps the first exception, to be raised in the end.
class FirstException {
public:
    template <class Step>
    void attempt(Step&& step) {
        try {
            step();
        } catch (...) {
            if (!m_exception) m_exception = std::current_exception();
        }
    }
    void raise() const {
        if (m_exception) std::rethrow_exception(m_exception);
    }

private:
    std::exception_ptr m_exception;
};

}  // namespace velkor::NS
