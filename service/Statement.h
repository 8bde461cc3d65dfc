#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace soci {
class session;
}

namespace velkor::service {

/// An SQL text that every supported database understands, with ":name" parameters, and its shape: a letter for each parameter in
/// the order of first appearance, a colon, a letter for each column of the result. "i" is a 64-bit integer, "t" a text. Nothing
/// is ever NULL.
struct Sql {
    const char* text;
    const char* shape;
};

/// A prepared statement, used again and again by one connection. Failures raise DatabaseFailure.
class Statement {
public:
    Statement(soci::session& session, const Sql& sql);
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    /// Runs a statement without results; how many rows it touched.
    template <class... A>
    std::int64_t run(const A&... arguments) {
        bindAll(arguments...);
        return execute();
    }
    /// Starts a statement with results; `next` then moves to each row.
    template <class... A>
    void start(const A&... arguments) {
        bindAll(arguments...);
        open();
    }
    /// Moves to the next row; false behind the last one.
    bool next();
    /// Gives the rest of the rows up.
    void finish();

    std::int64_t integer(std::size_t column) const;
    /// The column's text; valid until the next call of `next`.
    std::string& text(std::size_t column);

private:
    template <class... A>
    void bindAll(const A&... arguments) {
        std::size_t index = 0;
        (bind(index++, arguments), ...);
        checkCount(index);
    }
    template <std::integral I>
    void bind(std::size_t index, I value) {
        bindInteger(index, static_cast<std::int64_t>(value));
    }
    void bind(std::size_t index, std::string_view value) { bindText(index, value); }
    void bindInteger(std::size_t index, std::int64_t value);
    void bindText(std::size_t index, std::string_view value);
    void checkCount(std::size_t count) const;
    std::int64_t execute();
    void open();

    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor::service
