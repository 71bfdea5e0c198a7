// apns-host --describe against the add-on's own declarations: every method in dispatch order,
// every field of every record it reaches (in order), every enumeration case with its number and
// every event. A record that gains a field, or a method or case that is added, fails here until
// the description shows it.

#include <gtest/gtest.h>

#include <cstddef>
#include <filesystem>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#include "HostProcess.h"
#include "NimbOrraPlatform/JSONSerialization.h"
#include "NimbOrraPushAddonApns/ApnsBridgeEventEmitter.h"
#include "NimbOrraPushAddonApns/ApnsServiceMethods.h"
#include "support/TestSupport.h"

namespace nimborra::testing {
namespace {

namespace fs = std::filesystem;
using platform::Dictionary;
using platform::Value;

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

class Description {
  public:
    explicit Description(const Value& document) : root_(*document.dictionary()) {}

    const Value& operator[](std::string_view key) const { return *root_.find(key); }

    // The record described as `name` has R's fields in R's order, and so on for every record
    // and enumeration its fields reach.
    template <class R>
    void expectRecord(const std::string& name) const {
        SCOPED_TRACE(name);
        const Value* described = root_.find("records")->dictionary()->find(name);
        ASSERT_NE(described, nullptr) << "no record " << name;
        const platform::Array& fields = *described->dictionary()->find("fields")->array();
        std::size_t index = 0;
        std::apply(
            [&](const auto&... field) {
                (
                    [&] {
                        using Member =
                            std::remove_cvref_t<decltype(std::declval<R>().*(field.member))>;
                        ASSERT_LT(index, fields.size()) << "missing field " << field.key;
                        const Dictionary& entry = *fields[index++].dictionary();
                        EXPECT_EQ(*entry.find("name")->text(), field.key);
                        expectType<Member>(*entry.find("type")->dictionary());
                    }(),
                    ...);
            },
            R::codingFields());
        EXPECT_EQ(index, fields.size()) << "the description has fields the record lacks";
    }

  private:
    template <class T>
    void expectType(const Dictionary& type) const {
        if constexpr (core::CodableRecord<T>) {
            expectRecord<T>(*type.find("record")->text());
        } else if constexpr (core::WireEnum<T>) {
            const std::string name = *type.find("enumeration")->text();
            const Value* enumeration = root_.find("enumerations")->dictionary()->find(name);
            ASSERT_NE(enumeration, nullptr) << name;
            const platform::Array& cases = *enumeration->dictionary()->find("cases")->array();
            const auto& names = core::WireEnumTraits<T>::caseNames;
            ASSERT_EQ(cases.size(), names.size()) << name;
            for (std::size_t value = 0; value < names.size(); ++value) {
                EXPECT_EQ(*cases[value].dictionary()->find("name")->text(), names[value]);
                EXPECT_EQ(*cases[value].dictionary()->find("value")->integer(),
                          static_cast<std::int64_t>(value));
            }
        } else if constexpr (IsVector<T>::value) {
            EXPECT_EQ(*type.find("type")->text(), "array");
            expectType<typename T::value_type>(*type.find("items")->dictionary());
        } else {
            const std::string kind = *type.find("type")->text();
            if constexpr (std::is_same_v<T, bool>) {
                EXPECT_EQ(kind, "boolean");
            } else if constexpr (std::is_integral_v<T>) {
                EXPECT_EQ(kind, "integer");
                EXPECT_EQ(*type.find("bits")->integer(), static_cast<std::int64_t>(sizeof(T) * 8));
            } else if constexpr (std::is_floating_point_v<T>) {
                EXPECT_EQ(kind, "number");
            } else if constexpr (std::is_same_v<T, std::string>) {
                EXPECT_EQ(kind, "string");
            } else {
                EXPECT_EQ(kind, "bytes");
            }
        }
    }

    const Dictionary& root_;
};

TEST(Describe, NamesEveryMethodRecordFieldEnumerationCaseAndEvent) {
    const HostRun run = runHost("", {"--describe"});
    ASSERT_EQ(run.status, 0) << run.standardError;
    ASSERT_EQ(run.lines.size(), 1u);
    const auto document = platform::JSONSerialization::jsonObject(run.lines[0]);
    ASSERT_TRUE(document && document->dictionary());
    const Description description(*document);
    EXPECT_EQ(*description["plugin"].text(), "ApnsService");

    const platform::Array& methods = *description["methods"].array();
    std::size_t index = 0;
    std::apply(
        [&](const auto&... method) {
            (
                [&] {
                    using M = std::remove_cvref_t<decltype(method)>;
                    ASSERT_LT(index, methods.size()) << "missing method " << method.name;
                    const Dictionary& entry = *methods[index++].dictionary();
                    EXPECT_EQ(*entry.find("name")->text(), method.name);
                    description.expectRecord<typename M::RequestRecord>(
                        *entry.find("request")->text());
                    description.expectRecord<typename M::ResponseRecord>(
                        *entry.find("response")->text());
                }(),
                ...);
        },
        apns::apnsServiceMethods());
    EXPECT_EQ(index, methods.size());

    const platform::Array& events = *description["events"].array();
    ASSERT_EQ(events.size(), 3u);
    const auto event = [&](std::size_t at, std::string_view name) {
        EXPECT_EQ(*events[at].dictionary()->find("name")->text(), name);
        return *events[at].dictionary()->find("payload")->text();
    };
    description.expectRecord<apns::ApnsTokenRefreshedEvent>(
        event(0, apns::apnsTokenRefreshedEventName));
    description.expectRecord<apns::ApnsNotification>(
        event(1, apns::apnsNotificationPresentedEventName));
    description.expectRecord<apns::ApnsNotificationOpenedEvent>(
        event(2, apns::apnsNotificationOpenedEventName));
    // Every enumeration is described, also one that no record uses.
    EXPECT_EQ(description["enumerations"].dictionary()->size(), 5u);
}

// The README's far-side reference lists what the description lists: each method's row, in
// dispatch order, naming its request's and response's fields, and each enumeration's cases with
// their numbers.
TEST(Describe, TheReadmeReferenceAgreesWithTheDescription) {
    const std::string readme = readFile(fs::path(NIMBORRA_SOURCE_DIR) / "README.md");
    const auto start = readme.find("## Far-side reference");
    ASSERT_NE(start, std::string::npos);
    const std::string reference = readme.substr(start, readme.find("\n## ", start + 1) - start);
    const auto document =
        platform::JSONSerialization::jsonObject(runHost("", {"--describe"}).lines.at(0));
    ASSERT_TRUE(document);
    const Dictionary& root = *document->dictionary();
    const Dictionary& records = *root.find("records")->dictionary();

    std::size_t previous = 0;
    for (const Value& method : *root.find("methods")->array()) {
        const Dictionary& entry = *method.dictionary();
        const std::string& name = *entry.find("name")->text();
        const auto row = reference.find("| `" + name + "` |");
        ASSERT_NE(row, std::string::npos) << name;
        EXPECT_GT(row, previous) << name << " is out of dispatch order";
        previous = row;
        const std::string line = reference.substr(row, reference.find('\n', row) - row);
        for (const char* side : {"request", "response"}) {
            const Dictionary& record = *records.find(*entry.find(side)->text())->dictionary();
            for (const Value& field : *record.find("fields")->array()) {
                const std::string& fieldName = *field.dictionary()->find("name")->text();
                EXPECT_NE(line.find("`" + fieldName + "`"), std::string::npos)
                    << name << " lacks " << fieldName;
            }
        }
    }
    for (const auto& [name, enumeration] : *root.find("enumerations")->dictionary()) {
        std::string row = "| `" + *name.text() + "` | ";
        bool first = true;
        for (const Value& entry : *enumeration.dictionary()->find("cases")->array()) {
            row += (first ? "`" : ", `") + *entry.dictionary()->find("name")->text() + "` " +
                   std::to_string(*entry.dictionary()->find("value")->integer());
            first = false;
        }
        EXPECT_NE(reference.find(row + " |"), std::string::npos) << row;
    }
}

}  // namespace
}  // namespace nimborra::testing
