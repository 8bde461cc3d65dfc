#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Export.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class ManagedObject;

/// A condition on an entity's objects. Immutable and shared; any thread. Names are attributes or to-one relationships (compared
/// with an object, its identifier or nil). Texts compare exactly, by bytes.
class VELKOR_EXPORT Predicate {
public:
    enum class Kind { always, comparison, in, conjunction, disjunction, negation };
    enum class Comparison { equal, notEqual, less, lessOrEqual, greater, greaterOrEqual };

    static Predicate always();
    static Predicate compare(std::string_view name, Comparison comparison, Value value);
    static Predicate equal(std::string_view name, Value value) { return compare(name, Comparison::equal, std::move(value)); }
    static Predicate in(std::string_view name, Array values);
    static Predicate all(std::vector<Predicate> parts);
    static Predicate any(std::vector<Predicate> parts);
    static Predicate negation(Predicate part);

    Kind kind() const noexcept;
    const std::string& name() const noexcept;
    Comparison comparison() const noexcept;
    const Value& value() const noexcept;   // comparison
    const Array& values() const noexcept;  // in
    const std::vector<Predicate>& parts() const noexcept;
    /// Whether the object fulfils it, by its current values. On the object's thread.
    bool evaluate(const ManagedObject& object) const;
    std::string description() const;

private:
    struct Content;
    explicit Predicate(std::shared_ptr<const Content> content) : m_content(std::move(content)) {}
    std::shared_ptr<const Content> m_content;
};

}  // namespace velkor::NS
