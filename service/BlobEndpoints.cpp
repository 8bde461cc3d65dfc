#include "service/BlobEndpoints.h"

#include <algorithm>
#include <array>

#include "json/JSONWriter.h"
#include "service/BatchRecord.h"
#include "service/BlobTable.h"
#include "service/Fingerprints.h"
#include "service/Forms.h"
#include "service/KeptParts.h"
#include "service/Partition.h"
#include "service/Users.h"
#include "service/Withholding.h"

namespace velkor::service {
namespace {

// A blob that was never written has no bytes, wherever the others lie.
constexpr std::string_view emptyBlobPath = "/blobs/empty";
constexpr std::string_view hashOfNothing = "da39a3ee5e6b4b0d3255bfef95601890afd80709";

constexpr Sql findObject{"SELECT id, number, instance, body FROM objects WHERE partition_id = :partition AND guid = :guid",
                         "it:iiit"};
constexpr Sql storeNumber{"UPDATE objects SET number = :number, touched = :number, instance = :instance WHERE id = :id", "iii:"};
// What a rollback restores has the new number as well.
constexpr Sql storeNumberForUndo{"UPDATE undo SET number = :number, touched = :number, instance = :instance WHERE id = :id",
                                 "iii:"};
constexpr Sql noteNumber{"UPDATE instances SET last_number = :number WHERE id = :id", "ii:"};

Response notUploaded() { return Response::error(409, "No blob with this hash was uploaded."); }

Response answerWith(std::string_view name, std::string_view text) {
    std::string body;
    JSONWriter writer(body);
    writer.beginObject();
    writer.member(name, text);
    writer.endObject();
    return Response::json(std::move(body));
}

Response formAnswer(const BlobForm& form) {
    std::string text;
    JSONWriter writer(text);
    writer.beginObject();
    writer.member("url", form.url);
    writer.key("signature");
    writer.beginObject();
    for (const auto& [name, value] : form.fields) writer.member(name, value);
    writer.endObject();
    writer.endObject();
    return Response::json(std::move(text));
}

/// The SHA-1 of a "wrote.json" form in lower case; of no bytes where there was nothing to digest; none for what is no hash.
std::optional<std::string> hashOf(std::string_view form) {
    constexpr std::array<FormField, 1> fields{FormField{"hash", true}};
    auto hash = readForm(form, fields)[0];
    if (!hash) return std::nullopt;
    if (hash->empty()) return std::string(hashOfNothing);
    for (char& c : *hash) {
        if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
    }
    const bool isHash = hash->size() == hashOfNothing.size() && hash->find_first_not_of("0123456789abcdef") == hash->npos;
    return isHash ? hash : std::nullopt;
}

}  // namespace

Response BlobEndpoints::read(const BlobCall& call) {
    std::optional<Owner> owner;
    const auto blob = m_database.read([&](Connection& connection) -> std::optional<StoredBlob> {
        owner = ownerOf(connection, call);
        if (!owner || owner->partition == 0) return std::nullopt;
        return BlobTable(connection, owner->partition, call.guid, call.attribute).current();
    });
    if (!owner) return unauthorised();
    m_locks.noteTransfer(owner->user);
    return answerWith("url",
                      blob ? m_store.readURL(blob->name, blob->hash, call.origin) : call.origin + std::string(emptyBlobPath));
}

Response BlobEndpoints::write(const BlobCall& call) {
    const auto name = writeForOwner(call, [&](Connection& connection, Owner owner) -> std::optional<std::string> {
        if (!isUser(connection, owner.user)) return std::nullopt;
        if (owner.partition == 0) owner.partition = Partition::obtain(connection, owner.user, call.app).id;
        m_locks.noteTransfer(connection, owner.user);
        return BlobTable(connection, owner.partition, call.guid, call.attribute).addUpload(m_now());
    });
    return name ? formAnswer(m_store.uploadForm(*name, call.origin)) : unauthorised();
}

Response BlobEndpoints::wrote(const BlobCall& call, std::string_view form) {
    const auto hash = hashOf(form);
    if (!hash) return Response::error(400, "The request names no hash.");
    std::optional<Owner> owner;
    std::optional<StoredBlob> blob;
    const auto uploads = m_database.read([&](Connection& connection) -> std::vector<std::string> {
        owner = ownerOf(connection, call);
        if (!owner || owner->partition == 0) return {};
        const BlobTable table(connection, owner->partition, call.guid, call.attribute);
        blob = table.current();
        return table.uploads();
    });
    if (!owner) return unauthorised();
    // The store may be another machine: it is asked outside of any transaction.
    for (const auto& name : uploads) {
        if (m_store.holds(name, *hash)) return confirm(call, name, *hash);
    }
    // A confirmation whose answer was lost comes again.
    return blob && blob->hash == *hash ? answerWith("hash", *hash) : notUploaded();
}

Response BlobEndpoints::confirm(const BlobCall& call, const std::string& name, const std::string& hash) {
    const auto answer = writeForOwner(call, [&](Connection& connection, const Owner& owner) -> std::optional<Response> {
        if (owner.partition == 0) return notUploaded();
        BlobTable table(connection, owner.partition, call.guid, call.attribute);
        const auto before = table.current();
        const bool isKept = before && before->hash == hash;
        if (!table.confirm(name, hash, m_now())) return isKept ? answerWith("hash", hash) : notUploaded();
        if (!isKept) renumber(connection, owner, call.guid);
        m_locks.noteTransferEnd(connection, owner.user);
        return answerWith("hash", hash);
    });
    return answer.value_or(unauthorised());
}

Response BlobEndpoints::remove(const BlobCall& call) {
    auto owner = m_database.read([&](Connection& connection) { return ownerOf(connection, call); });
    if (!owner) {
        const auto found = m_database.read([&](Connection& connection) { return blobOwner(connection, call.app, call.guid); });
        if (found.isShared) return unauthorised();
        owner = Owner{found.owner.user, found.owner.partition, 0};
    }
    std::optional<std::string> name;
    if (owner->partition != 0) {
        name = m_database.write(owner->user, [&](Connection& connection) {
            m_locks.noteTransfer(connection, owner->user);
            return BlobTable(connection, owner->partition, call.guid, call.attribute).takeOut(m_now());
        });
    }
    return answerWith("url", name ? m_store.deleteURL(*name, call.origin) : call.origin + std::string(emptyBlobPath));
}

std::optional<BlobEndpoints::Owner> BlobEndpoints::ownerOf(Connection& connection, const BlobCall& call) {
    if (call.user) {
        const auto partition = Partition::find(connection, call.user->id, call.app);
        if (!partition) return Owner{call.user->id, 0, 0};
        return Owner{call.user->id, partition->id, instanceThatNamed(connection, call.user->id, partition->id, call.guid)};
    }
    const auto holders = holdersThatNamed(connection, call.app, call.guid);
    if (holders.size() != 1) return std::nullopt;
    return Owner{holders[0].user, holders[0].partition, holders[0].instance};
}

void BlobEndpoints::renumber(Connection& connection, const Owner& owner, std::string_view guid) {
    auto partition = Partition::find(connection, owner.user, owner.partition);
    if (!partition) return;
    KeptParts parts(connection, *partition);
    if (parts.isProvisional(guid)) return;
    parts.takeIn(m_directories);
    std::int64_t id = 0, writer = 0;
    std::string body;
    {
        auto rows = connection.query(findObject, partition->id, guid);
        if (!rows.next() || rows.integer(1) == 0) return;
        id = rows.integer(0);
        writer = rows.integer(2);
        const bool isProvisional =
            partition->provisional != 0 && writer == partition->provisional && rows.integer(1) > partition->provisionalAbove;
        if (isProvisional) return;
        body = rows.text(3);
    }
    // Its writer need not fetch what it uploaded itself; of anybody else the service is the author for all.
    const auto author = writer == owner.instance ? writer : 0;
    if (author == 0 && writer != 0) keepFingerprint(connection, id, writer, body);
    const auto number = ++partition->highest;
    connection.run(storeNumber, number, author, id);
    connection.run(storeNumberForUndo, number, author, id);
    liftWithheld(connection, partition->id, number - 1);
    partition->store(connection);
    if (author != 0) {
        connection.run(noteNumber, number, author);
        return;
    }
    auto service = Instance::find(connection, partition->id, serviceInstanceName);
    if (!service) service = Instance::add(connection, partition->id, serviceInstanceName);
    service->lastNumber = number;
    service->store(connection);
}

bool BlobEndpoints::isStoreTarget(std::string_view target) { return target == "/blobs" || target.starts_with("/blobs/"); }

Response BlobEndpoints::serve(const Request& request) {
    if (request.target == emptyBlobPath) {
        if (request.method == "GET") return Response::empty(200);
        return request.method == "DELETE" ? Response::empty(204) : Response::error(405, "This method is not for this path.");
    }
    auto answer = m_store.serve(request);
    return answer ? *std::move(answer) : Response::error(404, "There is nothing here.");
}

bool BlobEndpoints::isAnonymous(const Request& request) {
    if (request.authorization.empty()) return true;
    const auto credentials = credentialsFromHeader(request.authorization);
    return credentials && credentials->email == "(null)" && credentials->password == "(null)";
}

}  // namespace velkor::service
