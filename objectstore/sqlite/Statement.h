// A prepared SQLite statement. Internal to the object store.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string_view>
#include <utility>

#include "objectstore/StoredForm.h"

namespace velkor::NS::sqlite {

/// Owns an sqlite3_stmt. A value that cannot be bound is remembered and reported by the next step, so that nothing is stored as
/// NULL instead. Bound texts and bytes must live until the statement is reset, unless they are copied.
class Statement {
public:
    Statement() noexcept = default;
    explicit Statement(sqlite3_stmt* handle) noexcept : m_handle(handle) {}
    Statement(Statement&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)), m_failure(other.m_failure) {}
    Statement& operator=(Statement&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        std::swap(m_failure, other.m_failure);
        return *this;
    }
    ~Statement() { sqlite3_finalize(m_handle); }
    explicit operator bool() const noexcept { return m_handle != nullptr; }

    // Parameters count from 1.
    void bindNull(int place) noexcept { note(sqlite3_bind_null(m_handle, place)); }
    void bind(int place, std::int64_t value) noexcept { note(sqlite3_bind_int64(m_handle, place, value)); }
    void bind(int place, double value) noexcept { note(sqlite3_bind_double(m_handle, place, value)); }
    void bindText(int place, std::string_view text, bool copy = false) noexcept {
        note(sqlite3_bind_text64(m_handle, place, start(text), text.size(), lifetime(copy), SQLITE_UTF8));
    }
    void bindBytes(int place, std::string_view bytes, bool copy = false) noexcept {
        note(sqlite3_bind_blob64(m_handle, place, start(bytes), bytes.size(), lifetime(copy)));
    }
    void bind(int place, const StoredForm& form) noexcept {
        switch (form.kind) {
            case StoredForm::Kind::null:
                return bindNull(place);
            case StoredForm::Kind::integer:
                return bind(place, form.integer);
            case StoredForm::Kind::real:
                return bind(place, form.real);
            case StoredForm::Kind::text:
                return bindText(place, form.bytes, form.ownsBytes);
            case StoredForm::Kind::bytes:
                return bindBytes(place, form.bytes, form.ownsBytes);
        }
    }

    /// SQLITE_ROW, SQLITE_DONE, or the code of a failure.
    int step() noexcept { return m_failure == SQLITE_OK ? sqlite3_step(m_handle) : m_failure; }
    void reset() noexcept {
        sqlite3_reset(m_handle);
        m_failure = SQLITE_OK;
    }
    void clear() noexcept {
        reset();
        sqlite3_clear_bindings(m_handle);
    }

    // Columns of the current row count from 0. Texts and bytes are valid until the next step or reset.
    int type(int column) const noexcept { return sqlite3_column_type(m_handle, column); }
    bool isNull(int column) const noexcept { return type(column) == SQLITE_NULL; }
    std::int64_t integer(int column) const noexcept { return sqlite3_column_int64(m_handle, column); }
    double real(int column) const noexcept { return sqlite3_column_double(m_handle, column); }
    std::string_view text(int column) const noexcept {
        const auto* start = reinterpret_cast<const char*>(sqlite3_column_text(m_handle, column));
        return start ? std::string_view(start, length(column)) : std::string_view();
    }
    std::string_view bytes(int column) const noexcept {
        const auto* start = static_cast<const char*>(sqlite3_column_blob(m_handle, column));
        return start ? std::string_view(start, length(column)) : std::string_view();
    }

private:
    // A null pointer would be bound as NULL.
    static const char* start(std::string_view text) noexcept { return text.data() ? text.data() : ""; }
    static sqlite3_destructor_type lifetime(bool copy) noexcept { return copy ? SQLITE_TRANSIENT : SQLITE_STATIC; }
    std::size_t length(int column) const noexcept { return static_cast<std::size_t>(sqlite3_column_bytes(m_handle, column)); }
    void note(int code) noexcept {
        if (code != SQLITE_OK) m_failure = code;
    }

    sqlite3_stmt* m_handle = nullptr;
    int m_failure = SQLITE_OK;
};

}  // namespace velkor::NS::sqlite
