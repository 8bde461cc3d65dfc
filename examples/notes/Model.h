#pragma once

#include <VelkorSync/ManagedObject.h>
#include <VelkorSync/ManagedObjectModel.h>

#include <memory>

namespace notes {

class Notebook : public velkor::NS::ManagedObject {};
class Note : public velkor::NS::ManagedObject {};
class Tag : public velkor::NS::ManagedObject {};
class Attachment : public velkor::NS::ManagedObject {};
/// Never leaves this machine.
class LocalDraft : public velkor::NS::ManagedObject {};

/// Registers the classes above, at start.
void registerClasses();
std::shared_ptr<const velkor::NS::ManagedObjectModel> makeModel();

}  // namespace notes
