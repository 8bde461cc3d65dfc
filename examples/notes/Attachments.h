#pragma once

#include <VelkorSync/Data.h>
#include <VelkorSync/ManagedObjectContext.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "examples/notes/Store.h"

namespace notes {

/// A larger file fits into no row of the store.
inline constexpr std::uint64_t largestAttachment = 900'000'000;

/// Gives the note an unsaved attachment.
void attach(velkor::NS::ManagedObjectContext& context, const ObjectPtr& note, const std::string& fileName,
            velkor::NS::Data content);
/// The same with a file's name and content. Raises CommandError when it cannot be taken in.
void attachFile(velkor::NS::ManagedObjectContext& context, const ObjectPtr& note, const std::filesystem::path& file);

}  // namespace notes
