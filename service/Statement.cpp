#include "service/Statement.h"

#include <soci/soci.h>

#include <algorithm>
#include <cctype>
#include <deque>
#include <variant>
#include <vector>

#include "platform/base/Exception.h"
#include "service/Database.h"

namespace velkor::service {
namespace {

/// The ":name" parameters in the order of first appearance.
std::vector<std::string> parameterNames(std::string_view sql) {
    std::vector<std::string> names;
    for (std::size_t at = sql.find(':'); at != sql.npos; at = sql.find(':', at + 1)) {
        std::size_t end = at + 1;
        while (end < sql.size() && (std::isalnum(static_cast<unsigned char>(sql[end])) || sql[end] == '_')) ++end;
        std::string name(sql.substr(at + 1, end - at - 1));
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(std::move(name));
    }
    return names;
}

}  // namespace

struct Statement::State {
    using Slot = std::variant<long long, std::string>;  // places that SOCI knows by address

    explicit State(soci::session& s) : session(s), statement(s) {}

    Slot& add(std::deque<Slot>& slots, char letter) {
        return letter == 't' ? slots.emplace_back(std::string()) : slots.emplace_back(0LL);
    }

    soci::session& session;
    soci::statement statement;
    std::deque<Slot> parameters, columns;
    bool running = false;
};

Statement::Statement(soci::session& session, const Sql& sql) : m_state(std::make_unique<State>(session)) {
    const std::string_view shape = sql.shape;
    const auto colon = shape.find(':');
    const auto names = parameterNames(sql.text);
    NS::assertThat(colon != shape.npos && names.size() == colon, "the statement's shape fits its text");
    translateFailures([&] {
        auto& statement = m_state->statement;
        statement.alloc();
        for (std::size_t i = 0; i < colon; ++i) {
            std::visit([&](auto& value) { statement.exchange(soci::use(value, names[i])); },
                       m_state->add(m_state->parameters, shape[i]));
        }
        for (char letter : shape.substr(colon + 1)) {
            std::visit([&](auto& value) { statement.exchange(soci::into(value)); }, m_state->add(m_state->columns, letter));
        }
        statement.prepare(sql.text);
        statement.define_and_bind();
    });
}

Statement::~Statement() = default;

void Statement::bindInteger(std::size_t index, std::int64_t value) { std::get<long long>(m_state->parameters.at(index)) = value; }

void Statement::bindText(std::size_t index, std::string_view value) {
    std::get<std::string>(m_state->parameters.at(index)).assign(value);
}

void Statement::checkCount(std::size_t count) const {
    NS::assertThat(count == m_state->parameters.size(), "every parameter of the statement is given");
    NS::assertThat(!m_state->running, "the statement's earlier rows are given up");
}

std::int64_t Statement::execute() {
    return translateFailures([&] {
        m_state->statement.execute(true);
        return static_cast<std::int64_t>(m_state->statement.get_affected_rows());
    });
}

void Statement::open() {
    translateFailures([&] { m_state->statement.execute(false); });
    m_state->running = true;
}

bool Statement::next() {
    if (!m_state->running) return false;
    m_state->running = false;  // also when fetching fails
    m_state->running = translateFailures([&] { return m_state->statement.fetch(); });
    return m_state->running;
}

void Statement::finish() {
    // Fetching to the end is what every database understands; callers ask for no more rows than they read.
    while (next()) {
    }
}

std::int64_t Statement::integer(std::size_t column) const { return std::get<long long>(m_state->columns.at(column)); }
std::string& Statement::text(std::size_t column) { return std::get<std::string>(m_state->columns.at(column)); }

}  // namespace velkor::service
