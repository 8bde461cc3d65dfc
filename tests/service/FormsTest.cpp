#include "service/Forms.h"

#include <gtest/gtest.h>

#include <array>

namespace velkor::service {
namespace {

using Values = std::vector<std::optional<std::string>>;

TEST(FormsTest, valuesEndOnlyWhereAKnownFieldBegins) {
    constexpr std::array<FormField, 2> passwords{FormField{"old_password", true}, FormField{"new_password", true}};
    struct Case {
        std::string form;
        Values values;
    };
    const std::vector<Case> cases{
        {"old_password=a&new_password=b&", {"a", "b"}},
        {"new_password=b&old_password=a&", {"a", "b"}},
        {"old_password=a&b=c&new_password=d&e&", {"a&b=c", "d&e"}},
        {"old_password=a+b&new_password=%C3%BC%26&", {"a+b", "ü&"}},
        {"old_password=100%&new_password=%zz&", {"100%", "%zz"}},
        {"old_password=&new_password=&", {"", ""}},
        {"old_password=%00&new_password=%FF&", {"%00", "%FF"}},
        {"old_password=\xFF&new_password=\xC3\xBC&", {std::nullopt, "ü"}},
        {std::string("old_password=a\0b&new_password=c", 31), {std::nullopt, "c"}},
        {"old_password=xnew_password=y", {"xnew_password=y", std::nullopt}},
        {"old_passwords=1&new_password=2", {std::nullopt, "2"}},
        {"old_password", {std::nullopt, std::nullopt}},
        {"old_password=a&&new_password=b&&", {"a&", "b&"}},
        {"", {std::nullopt, std::nullopt}},
        {"&", {std::nullopt, std::nullopt}},
    };
    for (const auto& [form, values] : cases) EXPECT_EQ(readForm(form, passwords), values) << form;
}

TEST(FormsTest, rawFieldsAreTakenAsTheyStand) {
    constexpr std::array<FormField, 2> info{FormField{"instance_id"}, FormField{"client_info"}};
    const std::string json = R"({"a&b":"c=d%20+","name":"x"})";
    EXPECT_EQ(readForm("client_info=" + json + "&instance_id=I-1%20&", info), (Values{"I-1%20", json}));
}

}  // namespace
}  // namespace velkor::service
