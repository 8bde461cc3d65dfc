#include "objectstore/ManagedObjectID.h"

#include "objectstore/EntityDescription.h"

namespace velkor::NS {

std::string ManagedObjectID::URIRepresentation() const {
    std::string uri = "x-velkor:///" + m_entity->name();
    uri += isTemporaryID() ? "/t" : "/p";
    return uri + std::to_string(isTemporaryID() ? -m_key : m_key);
}

}  // namespace velkor::NS
