#include "objectstore/sqlite/Migration.h"

#include <set>

#include "objectstore/sqlite/MigrationPlan.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "objectstore/sqlite/StoreLayout.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS::sqlite {

namespace {

Result<std::vector<std::string>> namesInFile(Connection& connection, std::string_view type) {
    auto lease = connection.prepare("SELECT name FROM sqlite_master WHERE type=? AND name NOT LIKE 'sqlite_%'");
    if (!lease) return lease.error();
    lease.value()->bindText(1, type);
    std::vector<std::string> names;
    auto read = connection.eachRow(*lease.value(), [&](Statement& row) { names.emplace_back(row.text(0)); });
    if (!read) return read.error();
    return names;
}

class Migration {
public:
    Migration(Connection& connection, const StoreSchema& from, const StoreSchema& to, MigrationPlan plan)
        : m_connection(connection), m_from(from), m_to(to), m_plan(std::move(plan)) {}

    Result<void> run() {
        for (const EntityTable* table : m_plan.dropped) {
            // Should the entity come back, its keys go on from here.
            if (auto kept = KeyCounter(table->keys).reserve(m_connection, 0); !kept) return kept.error();
            if (auto dropped = m_connection.execute("DROP TABLE " + table->name); !dropped) return dropped;
        }
        for (const EntityTable* table : m_plan.created) {
            if (auto made = m_connection.execute(table->creationSQL()); !made) return made;
        }
        for (const EntityStep& step : m_plan.changed) {
            if (auto changed = step.onlyAdds() ? addColumns(step) : rebuild(step); !changed) return changed;
        }
        if (auto moved = moveJoins(); !moved) return moved;
        for (const EntityTable* table : m_plan.dropped) {
            if (auto cleared = clearIdentifiers(table->entity->name()); !cleared) return cleared;
        }
        return {};
    }

private:
    Result<void> addColumns(const EntityStep& step) {
        for (const EntityStep::Source& source : step.sources) {
            if (!source.expression.empty()) continue;
            auto added = m_connection.execute("ALTER TABLE " + step.to->name + " ADD COLUMN " + source.column->name + ' ' +
                                              std::string(source.column->declaredType()));
            if (!added) return added;
        }
        return {};
    }

    /// Copies the rows into a new table, each value as its source says.
    Result<void> rebuild(const EntityStep& step) {
        const std::string old = quoted("old_", step.from->entity->name());
        if (auto moved = m_connection.execute("ALTER TABLE " + step.from->name + " RENAME TO " + old); !moved) return moved;
        if (auto made = m_connection.execute(step.to->creationSQL()); !made) return made;
        std::string names = "id,v", values = "id,v";
        for (const EntityStep::Source& source : step.sources) {
            names += ',' + source.column->name;
            values += ",coalesce(" + (source.expression.empty() ? "NULL" : source.expression) + ",?)";
        }
        auto copied = m_connection.run("INSERT INTO " + step.to->name + '(' + names + ") SELECT " + values + " FROM " + old,
                                       [&](Statement& statement) { bindFills(step, statement); });
        if (!copied) return copied;
        if (auto complete = checkRequired(step); !complete) return complete;
        return m_connection.execute("DROP TABLE " + old);
    }

    static void bindFills(const EntityStep& step, Statement& statement) {
        StoredForm form;
        int place = 0;
        for (const EntityStep::Source& source : step.sources) {
            (void)form.take(source.column->type, source.fill);  // the model's builder has checked default values
            statement.bind(++place, form);
        }
    }

    Result<void> checkRequired(const EntityStep& step) {
        for (const EntityStep::Source& source : step.sources) {
            if (!source.required || !source.fill.isNil()) continue;
            auto missing = m_connection.integer("SELECT count(*) FROM (SELECT 1 FROM " + step.to->name + " WHERE " +
                                                source.column->name + " IS NULL LIMIT 1)");
            if (!missing) return missing.error();
            if (missing.value() == 0) continue;
            return storeFileError(StoreError::incompatibleModel, m_connection.file(),
                                  "cannot be migrated: " + step.to->entity->name() + '.' + std::string(source.column->property) +
                                      " needs a value, but there are objects without one and it has no default");
        }
        return {};
    }

    /// Takes the links over into the join tables of the new model.
    Result<void> moveJoins() {
        std::set<std::string> kept;
        for (const JoinStep& step : m_plan.joins) {
            if (step.from == step.to && !step.swapped && sources(step.to) == 1) kept.insert(step.to);
        }
        for (const auto& [name, sql] : m_from.joinTables()) {
            if (kept.contains(name)) continue;
            auto moved = m_connection.execute("ALTER TABLE " + quoted("", name) + " RENAME TO " + quoted("old_", name));
            if (!moved) return moved;
        }
        for (const auto& [name, sql] : m_to.joinTables()) {
            if (kept.contains(name)) continue;
            if (auto made = m_connection.execute(sql); !made) return made;
        }
        for (const JoinStep& step : m_plan.joins) {
            if (kept.contains(step.to)) continue;
            const std::string old = kept.contains(step.from) ? quoted("", step.from) : quoted("old_", step.from);
            auto copied = m_connection.execute("INSERT OR IGNORE INTO " + quoted("", step.to) + "(owner,destination) SELECT " +
                                               (step.swapped ? "destination,owner" : "owner,destination") + " FROM " + old);
            if (!copied) return copied;
        }
        for (const auto& [name, sql] : m_from.joinTables()) {
            if (kept.contains(name)) continue;
            if (auto dropped = m_connection.execute("DROP TABLE " + quoted("old_", name)); !dropped) return dropped;
        }
        return {};
    }

    std::size_t sources(const std::string& join) const {
        std::size_t count = 0;
        for (const JoinStep& step : m_plan.joins) count += step.to == join;
        return count;
    }

    /// Identifiers of objects whose entity is gone lead nowhere.
    Result<void> clearIdentifiers(const std::string& entity) {
        const std::string prefix = "x-velkor:///" + entity + "/p";
        for (std::size_t i = 0; i < m_to.tableCount(); ++i) {
            for (const Column& column : m_to.table(i).columns) {
                if (column.content != Column::Content::attribute || column.type != AttributeType::objectID) continue;
                auto cleared = m_connection.run("UPDATE " + m_to.table(i).name + " SET " + column.name + "=NULL WHERE substr(" +
                                                    column.name + ",1,length(?1))=?1",
                                                [&](Statement& statement) { statement.bindText(1, prefix); });
                if (!cleared) return cleared;
            }
        }
        return {};
    }

    Connection& m_connection;
    const StoreSchema& m_from;
    const StoreSchema& m_to;
    const MigrationPlan m_plan;
};

}  // namespace

Result<void> migrateStore(Connection& connection, const std::string& fromText, const StoreSchema& to, const std::string& toText) {
    auto plist = propertyListFromBytes(fromText);
    auto model = plist ? ManagedObjectModel::modelFromPropertyList(plist.value())
                       : Result<std::shared_ptr<const ManagedObjectModel>>(plist.error());
    if (!model) return storeFileError(StoreError::notAStore, connection.file(), "is damaged: its model cannot be read");
    const StoreSchema from(model.value());
    auto plan = MigrationPlan::infer(from, to, connection.file());
    if (!plan) return plan.error();
    if (auto migrated = Migration(connection, from, to, std::move(plan).value()).run(); !migrated) return migrated;
    if (auto indexed = reconcileIndices(connection, to); !indexed) return indexed;
    // What a watch remembers may have been filled in or dropped.
    if (auto moved = connection.execute("UPDATE watches SET stamp=stamp+1"); !moved) return moved;
    return writeModelText(connection, toText);
}

Result<void> reconcileIndices(Connection& connection, const StoreSchema& schema) {
    auto found = namesInFile(connection, "index");
    if (!found) return found.error();
    std::set<std::string> present;
    for (const std::string& name : found.value()) {
        if (schema.indices().contains(name)) {
            present.insert(name);
        } else if (auto dropped = connection.execute("DROP INDEX " + quoted("", name)); !dropped) {
            return dropped;
        }
    }
    for (const auto& [name, sql] : schema.indices()) {
        if (present.contains(name)) continue;
        if (auto made = connection.execute(sql); !made) return made;
    }
    return {};
}

}  // namespace velkor::NS::sqlite
