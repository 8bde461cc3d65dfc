// The fingerprint of the set of shared objects.
#include <gmock/gmock.h>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "Sync/VLKSyncableObjectHasher.h"
#include "tests/Sync/ControllerTest.h"

namespace velkor::test {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

class HasherTest : public ControllerTest {
protected:
    VLKSyncableObjectHasher hasher() { return {store.newContext(), *controller}; }
    std::string hash() { return hasher().hashOfKnownShareableObjects().value_or("none"); }
    static std::string hashOf(std::string_view joined) { return base64Encoding(sha256Hash(NS::Data::copyOf(joined))); }
    std::vector<std::string> listed() {
        std::vector<std::string> guids;
        const auto all = hasher().guidsForAllKnownObjectsInContext(*host);
        for (const auto& guid : *all) guids.push_back(guid.stringOr(""));
        return guids;
    }
    std::vector<std::string> knownObjects() {
        std::vector<std::string> guids;
        for (const auto& object : hasher().knownObjectsInContext(*host))
            guids.push_back(object->valueForKey("guid").stringOr(""));
        return guids;
    }
    /// Makes the hasher judge by objects: notebooks answer `expired` with a function.
    static void judgeByFunction() {
        NS::ObjectClass::registerClass<Notebook>("Notebook")
            .adopt(VLKSyncableObject)
            .answersWithAttribute("doNotSynchronize")
            .answers("expired",
                     [](const NS::ManagedObject& object) { return object.valueForKey("title") == NS::Value("expired"); });
    }
};

TEST_F(HasherTest, coversTheSharedGuidsInTheSharedOrder) {
    EXPECT_EQ(hash(), "47DEQpj8HBSa+/TImW+5JCeuQeRkm5NMpJWZG3hSuFU=");
    for (const auto* guid : {"b", "C", "a", "A"}) addNote(guid);
    insertObject(*host, "Tag", "B2");
    insertObject(*host, "Notebook", "nb");
    host->insertNewObjectForEntityForName("LocalDraft");
    addNote("");
    controller->disableObserving();
    save();
    EXPECT_EQ(hash(), hashOf("AabB2Cnb"));
    EXPECT_EQ(*hasher().knownShareableObjectsForHash(), (NS::Array{"A", "a", "b", "B2", "C", "nb"}));
    EXPECT_THAT(listed(), UnorderedElementsAre("nb", "b", "C", "a", "A", "B2"));
}

TEST_F(HasherTest, theFirstObjectOfAGuidDecides) {
    const auto fill = [this](std::string_view suffix) {
        const auto name = [&](const char* text) { return text + std::string(suffix); };
        insertObject(*host, "Notebook", name("hidden"), {{"doNotSynchronize", true}});
        addNote(name("hidden"));
        insertObject(*host, "Notebook", name("shown"));
        addNote(name("shown"), {{"expired", true}});
        addNote(name("expired"), {{"expired", true}});
        insertObject(*host, "Tag", name("twice"));
        insertObject(*host, "Tag", name("twice"));
        save();
    };
    fill("1");
    EXPECT_EQ(hash(), hashOf("shown1twice1"));
    EXPECT_THAT(listed(), ElementsAre("shown1", "twice1"));
    EXPECT_THAT(knownObjects(), ElementsAre("shown1", "twice1"));
    judgeByFunction();
    insertObject(*host, "Notebook", "by function", {{"title", "expired"}});
    fill("2");
    EXPECT_EQ(hash(), hashOf("shown1shown2twice1twice2"));
    EXPECT_THAT(knownObjects(), ElementsAre("shown1", "shown2", "twice1", "twice2"));
}

TEST_F(HasherTest, isRememberedUntilASaveTouchesIt) {
    addNote("a");
    insertObject(*host, "Notebook", "nb");
    save();
    const auto remembered = [this] { return store.coordinator()->rememberedValue("syncable guids").asDictionary() != nullptr; };
    EXPECT_FALSE(remembered());
    EXPECT_EQ(hash(), hashOf("anb"));
    EXPECT_TRUE(remembered());
    fetchObject(*host, "Note", "a")->setValueForKey("title", "title");
    save();
    EXPECT_TRUE(remembered());
    store.coordinator()->rememberValue("syncable guids", *store.coordinator()->watchStamp("syncable guids").value(),
                                       NS::Dictionary{{"hash", "kept"}, {"generic", NS::Array()}});
    EXPECT_EQ(hash(), "kept");
    {
        LogCapture log(400);
        EXPECT_EQ(hash(), hashOf("anb")) << "computed, so that the list is logged";
    }
    const auto values = std::make_shared<NS::Observable>();
    values->setValueForKey("dark", "theme");
    controller->registerObservationOfKeyPath("theme", values, "prefs");
    EXPECT_EQ(hash(), hashOf("aann@example.org_prefs_themenb"));
    values->setValueForKey({}, "theme");
    EXPECT_EQ(hash(), hashOf("anb"));

    const std::vector<std::pair<std::function<void()>, std::string>> touches = {
        {[this] { fetchObject(*host, "Note", "a")->setValueForKey(true, "expired"); }, "nb"},
        {[this] { fetchObject(*host, "Notebook", "nb")->setValueForKey("NB2", "guid"); }, "NB2"},
        {[this] { fetchObject(*host, "Notebook", "NB2")->setValueForKey(true, "doNotSynchronize"); }, ""},
        {[this] { addNote("c"); }, "c"},
        {[this] { host->deleteObject(fetchObject(*host, "Note", "c")); }, ""},
    };
    for (const auto& [touch, joined] : touches) {
        touch();
        save();
        EXPECT_FALSE(remembered());
        EXPECT_EQ(hash(), hashOf(joined));
    }
    judgeByFunction();
    addNote("d");
    save();
    EXPECT_EQ(hash(), hashOf("d"));
    EXPECT_FALSE(remembered()) << "what a function answers may change without a save";
}

TEST_F(HasherTest, logsItsMessages) {
    addNote("b");
    addNote("A");
    save();
    checkLogCases({{"the list", 400, [this] { hash(); }, {"Hashing known shareable objects: (\n    A,\n    b\n)"}}});
}

}  // namespace
}  // namespace velkor::test
