#include "objectstore/ManagedObjectModel.h"

namespace velkor::NS {

const EntityDescription* ManagedObjectModel::entityNamed(std::string_view name) const noexcept {
    for (const auto& entity : m_entities) {
        if (entity->name() == name) return entity.get();
    }
    return nullptr;
}

}  // namespace velkor::NS
