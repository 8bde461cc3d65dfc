#include "examples/notes/Attachments.h"

#include <VelkorSync/AtomicFile.h>
#include <VelkorSync/UTF8.h>

#include <algorithm>
#include <array>
#include <string_view>
#include <system_error>
#include <utility>

#include "examples/notes/Options.h"

namespace notes {

using namespace velkor;

namespace {

constexpr std::string_view unknownContent = "application/octet-stream";
constexpr std::array<std::pair<std::string_view, std::string_view>, 22> contentTypes{{
    {".bz2", "application/x-bzip2"}, {".css", "text/css"},          {".csv", "text/csv"},     {".gif", "image/gif"},
    {".gz", "application/gzip"},     {".htm", "text/html"},         {".html", "text/html"},   {".jpeg", "image/jpeg"},
    {".jpg", "image/jpeg"},          {".json", "application/json"}, {".md", "text/markdown"}, {".mp3", "audio/mpeg"},
    {".mp4", "video/mp4"},           {".pdf", "application/pdf"},   {".png", "image/png"},    {".svg", "image/svg+xml"},
    {".tar", "application/x-tar"},   {".txt", "text/plain"},        {".webp", "image/webp"},  {".xml", "application/xml"},
    {".xz", "application/x-xz"},     {".zip", "application/zip"},
}};

std::string_view contentTypeOf(const std::string& fileName) {
    std::string extension = std::filesystem::path(fileName).extension().string();
    for (char& character : extension) {
        if (character >= 'A' && character <= 'Z') character = static_cast<char>(character - 'A' + 'a');
    }
    auto found =
        std::find_if(contentTypes.begin(), contentTypes.end(), [&](const auto& type) { return type.first == extension; });
    return found == contentTypes.end() ? unknownContent : found->second;
}

}  // namespace

void attach(NS::ManagedObjectContext& context, const ObjectPtr& note, const std::string& fileName, NS::Data content) {
    auto attachment = insertObject(context, "Attachment");
    attachment->setValueForKey(fileName, "fileName");
    attachment->setValueForKey(contentTypeOf(fileName), "contentType");
    attachment->setValueForKey(content.size(), "byteCount");
    attachment->setValueForKey(std::move(content), "content");
    attachment->setDestination(*attachment->entity().relationshipNamed("note"), note);
}

void attachFile(NS::ManagedObjectContext& context, const ObjectPtr& note, const std::filesystem::path& file) {
    std::string name = file.filename().string();
    if (name.empty()) throw CommandError(file.string() + " is not a file");
    if (!NS::isValidUTF8(name)) throw CommandError("the name of " + file.string() + " is not UTF-8");
    std::error_code ignored;
    const auto status = std::filesystem::status(file, ignored);  // what blocks or never ends is nobody's attachment
    if (exists(status) && !is_regular_file(status)) throw CommandError(file.string() + " is not a regular file");
    auto content = NS::readFile(file, largestAttachment);
    if (!content.ok()) throw CommandError(content.error().localizedDescription());
    attach(context, note, name, std::move(content).value());
}

}  // namespace notes
