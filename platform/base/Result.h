#pragma once

#include <utility>
#include <variant>

#include "platform/base/Error.h"
#include "platform/base/Export.h"

namespace velkor::NS {

/// A value, or the error that kept it from being made.
template <class T>
class [[nodiscard]] Result {
public:
    Result(T value) : m_content(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : m_content(std::in_place_index<1>, std::move(error)) {}

    bool ok() const noexcept { return m_content.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }
    T& value() & { return std::get<0>(m_content); }
    const T& value() const& { return std::get<0>(m_content); }
    /// By value: what a range-for over a temporary result walks through lives as long as the loop.
    T value() && { return std::get<0>(std::move(m_content)); }
    const Error& error() const { return std::get<1>(m_content); }

private:
    std::variant<T, Error> m_content;
};

/// Success without a value, or an error.
template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : m_error(std::move(error)) {}

    bool ok() const noexcept { return !m_error; }
    explicit operator bool() const noexcept { return ok(); }
    const Error& error() const { return *m_error; }

private:
    std::optional<Error> m_error;
};

}  // namespace velkor::NS
