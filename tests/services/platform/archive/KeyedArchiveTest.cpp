// Archives by other writers, and damaged ones. What we write is mostly judged by RequestsWalk.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "orbiq/private/orbiqRequest/orbiqClearCache.h"
#include "orbiq/services/platform/archive/KeyedArchiver.h"
#include "orbiq/services/platform/archive/KeyedUnarchiver.h"
#include "orbiq/services/platform/files/AtomicFile.h"
#include "tests/support/TemporaryDirectory.h"

namespace orbiq::test {
namespace {

constexpr std::string_view kItemNames[]{"Item", "NSObject"};
constexpr std::string_view kMarkerNames[]{"Marker", "NSObject"};

/// Has a field of each kind.
struct Item : Archivable {
  static const ArchivedClass kClass;
  String name;
  std::int64_t number = 0;
  std::uint64_t count = 0;
  bool flag = false;
  std::optional<Date> date;
  SharedParameters parameters;
  std::shared_ptr<Archivable> link;

  const ArchivedClass& archivedClass() const override { return kClass; }
  void encodeWithCoder(KeyedArchiver& coder) const override { coder.encodeString(name, "name"); }
  static std::shared_ptr<Archivable> decode(KeyedUnarchiver& coder) {
    auto item = std::make_shared<Item>();
    item->name = coder.decodeString("name");
    item->number = coder.decodeInteger("number");
    item->count = coder.decodeUnsigned("count");
    item->flag = coder.decodeBoolean("flag");
    item->date = coder.decodeDate("date");
    item->parameters = coder.decodeParameters("parameters");
    item->link = coder.decodeObject("link", kClass);
    return item;
  }

  /// The fields that hold something.
  std::string description() const override {
    std::ostringstream text;
    if (!name.isNull()) text << "name=" << name.view() << ' ';
    if (number != 0) text << "number=" << number << ' ';
    if (count != 0) text << "count=" << count << ' ';
    if (flag) text << "flag ";
    if (date) text << "date=" << date->secondsSinceReferenceDate << ' ';
    if (parameters) {
      for (const auto& [key, value] : *parameters) text << key.view() << '=' << value.view() << ' ';
    }
    if (link) text << "-> " << link->description();
    return text.str();
  }
};
const ArchivedClass Item::kClass{kItemNames, &Item::decode};
const ArchivedClass kMarkerClass{kMarkerNames, &Item::decode};

using Queue = std::vector<std::shared_ptr<Archivable>>;

std::optional<Queue> unarchive(std::string_view bytes) {
  const ArchivedClass* const accepted[]{&Item::kClass, &kMarkerClass};
  return KeyedUnarchiver::unarchiveArray(bytes, accepted);
}

/// Archives by another writer, one for each line, which is an expression over the functions of
/// write_archives.py.
std::vector<std::string> pythonArchives(const std::string& lines) {
  const TemporaryDirectory directory;
  const std::string input = directory.path() / "input";
  const std::string output = directory.path() / "output";
  std::ofstream(input) << lines;
  const std::string command = "python3 " ORBIQ_TEST_SUPPORT "/write_archives.py < " + input;
  EXPECT_EQ(std::system((command + " > " + output).c_str()), 0);
  const std::string all = readFile(output, 1U << 30U).value();
  std::vector<std::string> archives;
  for (std::size_t at = 0; at < all.size(); at += 20 + archives.back().size()) {
    archives.push_back(all.substr(at + 20, std::stoul(all.substr(at, 20))));
  }
  return archives;
}

/// Lets the process grow by 64 MiB and no more. (AddressSanitizer reserves terabytes, and cannot
/// live under a limit.)
void limitMemory() {
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  rlimit limit;
  getrlimit(RLIMIT_AS, &limit);
  if (pages < 1U << 28) limit.rlim_cur = pages * 4096 + (64U << 20);
  setrlimit(RLIMIT_AS, &limit);
}

TEST(KeyedArchive, ReadsOtherWriters) {
  const struct {
    const char* expression;
    const char* expected;  // null if it is no archive
  } cases[]{
      {"item('\\u00e9 \\U0001f600', root='NSMutableArray', name=UID(8))",
       "name=\xC3\xA9 \xF0\x9F\x98\x80 "},
      {R"(binary(item('abcde', name=UID(8))).replace(b'\x55abcde', b'\x75caf\xC3\xA9'))",
       "name=caf\xC3\xA9 "},
      {"item({'NS.string': 'boxed', '$class': UID(7)}, name=UID(8), x=1, y=[])", "name=boxed "},
      {"item({'NS.string': 'x', '$class': UID(5)}, name=UID(8))", ""},
      {"item(7, name=UID(8), parameters=UID(999), link=UID(8))", ""},
      {"item(name='inline', number='7', count=UID(7), flag=[1], date=2.5, link=UID(2))", ""},
      {"item(cls('Marker'), {'$class': UID(8)}, elements=[UID(9), UID(2)], link=UID(9))", ""},
      {"item({'number': 4, '$class': UID(4)}, link=UID(8))", "-> number=4 "},
      {"item(number=True, count=-2.9, flag=0.5)", "number=1 count=18446744073709551614 flag "},
      {"item(number=float('nan'), count=float('nan'), flag=float('nan'))", ""},
      {"item(number=2.0**63, count=1.9)", "number=9223372036854775807 count=1 "},
      {"item(number=float('-inf'), count=1e300)",
       "number=-9223372036854775808 count=9223372036854775807 "},
      {"item(number=2**63, count=2**63)", "number=-9223372036854775808 count=9223372036854775808 "},
      {R"(binary(item(number=2**63)).replace(b'\x14' + 8 * b'\0', b'\x14' + 8 * b'\xFF'))",
       "number=-9223372036854775808 "},
      {R"(binary(item(count=2**63)).replace(b'\x14' + 8 * b'\0', b'\x14' + 8 * b'\1'))", ""},
      {"item({'NS.time': 5, '$class': UID(6)}, date=UID(8))", "date=5 "},
      {"item(own_date(-1.5), date=UID(8))", "date=-1.5 "},
      {"item(date=own_date(5))", "date=5 "},
      {"item(own_date(5), name=UID(8), number=own_date(5), link=UID(8))", ""},
      {"item({'NS.time': 'x', '$class': UID(6)}, date=UID(8))", ""},
      {"item(mapping([UID(9)], [UID(9), UID(9)]), 'k', parameters=UID(8))", ""},
      {"item(mapping([UID(9)], [UID(9)]), 7, parameters=UID(8))", ""},
      {"item(mapping([UID(9), UID(10)], [UID(10), UID(0)]), 'k', 'v', parameters=UID(8))", "k=v "},
      {"{**item(), '$archiver': 'Other'}", nullptr},
      {"{**item(), '$top': {'root': 1}}", nullptr},
      {"{**item(), '$objects': 'text'}", nullptr},
      {"item(root='NSSet')", nullptr},
      {"item(elements=[UID(2), UID(0)])", nullptr},
      {"item(elements=[UID(2), 'text'])", nullptr},
      {"item(elements=[UID(1)])", nullptr},
      {"item(cls('Unknown'), {'$class': UID(8)}, elements=[UID(2), UID(9)])", nullptr},
      {"b'<?xml version=\"1.0\"?><plist><array/></plist>'", nullptr},
      {"binary([UID(1)])", nullptr},
  };
  std::string lines;
  for (const auto& row : cases) lines += std::string(row.expression) + "\n";
  // Two items that share all that they have.
  lines +=
      "item({'name': UID(9), 'parameters': UID(10), 'link': UID(11), '$class': UID(4)}, 'text', "
      "mapping([UID(9)], [UID(9)]), {'$class': UID(4)}, elements=[UID(2), UID(8)], "
      "name=UID(9), parameters=UID(10), link=UID(11))\n";
  const std::vector<std::string> archives = pythonArchives(lines);
  ASSERT_EQ(archives.size(), std::size(cases) + 1);
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    const auto elements = unarchive(archives[i]);
    ASSERT_EQ(elements.has_value(), cases[i].expected != nullptr) << cases[i].expression;
    if (!elements) continue;
    EXPECT_EQ(elements->back()->description(), cases[i].expected) << cases[i].expression;
  }
  const auto elements = unarchive(archives.back());
  const auto first = std::dynamic_pointer_cast<Item>(elements.value().front());
  const auto second = std::dynamic_pointer_cast<Item>(elements->back());
  EXPECT_TRUE(first->name.isSameObjectAs(second->name));
  EXPECT_TRUE(first->name.isSameObjectAs(first->parameters->at("text")));
  EXPECT_EQ(first->parameters, second->parameters);
  EXPECT_EQ(first->link, second->link);
}

TEST(KeyedArchive, SmallFilesCannotBecomeBig) {
  const std::vector<std::string> archives = pythonArchives(
      // Three thousand items whose parameters are one dictionary of three thousand.
      "item(*({'parameters': UID(3008 + i), '$class': UID(4)} for i in range(3000)),"
      "*[mapping([UID(6008 + i) for i in range(3000)], [UID(6008)] * 3000)] * 3000,"
      "*('k%d' % i for i in range(3000)), elements=[UID(8 + i) for i in range(3000)])\n"
      // A thousand texts that lie in the same three hundred thousand bytes.
      "overlaid(item(mapping([UID(9)] * 999, [UID(10 + i) for i in range(999)]), 'k', "
      "*('%03d' % i for i in range(999)), 'x' * 300000, parameters=UID(8)))\n"
      // Three thousand entries that are one object of three thousand unknown fields.
      "item(*[{**{'f%d' % i: 1 for i in range(3000)}, '$class': UID(4)}] * 3000, "
      "elements=[UID(8 + i) for i in range(3000)])\n");
  ASSERT_EQ(archives.size(), 3U);
  limitMemory();
  for (const std::string& hostile : archives) EXPECT_FALSE(unarchive(hostile));
}

TEST(KeyedArchive, HasRoomForAnotherLongText) {
  std::vector<KeyedArchiver::Element> items;
  const auto add = [&] {
    const auto item = std::make_shared<Item>();
    item->name = std::string(1'000 + items.size(), 'x');
    return items.emplace_back(item);
  };
  for (const std::size_t count : {6U, 10U, 25U, 60U}) {
    while (items.size() < count) add();
    KeyedArchiver archiver;
    archiver.encode(items);
    archiver.append(add());
    EXPECT_TRUE(archiver.isWhole()) << count;
  }
}

std::size_t numberAt(const std::string& bytes, std::size_t at, std::size_t size) {
  std::size_t number = 0;
  for (std::size_t i = at; i < at + size; ++i) {
    number = number << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return number;
}

std::string withNumber(std::string bytes, std::size_t at, std::size_t size, std::uint64_t number) {
  for (std::size_t i = size; i-- > 0; number >>= 8) bytes[at + i] = static_cast<char>(number);
  return bytes;
}

/// A file with all classes, spoiled. Whatever can still be read is read, with all that comes of it.
TEST(KeyedArchive, DamageAndLiesAreHarmless) {
  const std::string bytes =
      readFile(ORBIQ_TEST_SUPPORT "/../private/saved/requests-1.0.ser", 1U << 20U).value();
  const auto isRead = [](std::string_view damaged) {
    const ArchivedClass* const classes[]{&orbiqRequest::kArchivedClass,
                                         &orbiqClearCache::kArchivedClass};
    const auto elements = KeyedUnarchiver::unarchiveArray(damaged, classes);
    for (const auto& element : elements.value_or(Queue{})) EXPECT_NO_THROW(element->description());
    return elements.has_value();
  };
  limitMemory();
  for (std::size_t size = 0; size < bytes.size(); ++size) {
    EXPECT_FALSE(isRead(std::string_view(bytes).substr(0, size))) << size;
  }

  const std::size_t trailer = bytes.size() - 32;
  const std::size_t offsetSize = numberAt(bytes, trailer + 6, 1);
  const std::size_t table = numberAt(bytes, trailer + 24, 8);
  const std::size_t count = numberAt(bytes, trailer + 8, 8);
  const struct {
    std::size_t at;
    std::size_t size;
    std::vector<std::uint64_t> numbers;
  } lies[]{
      {6, 1, {0, 9, 255}},
      {7, 1, {0, 9, 255}},
      {8, 8, {0, count - 1, count + 1, std::uint64_t{1} << 61, UINT64_MAX}},
      {16, 8, {count, UINT64_MAX}},
      {24, 8, {0, 8, table - 1, table + offsetSize, trailer, trailer + 1, UINT64_MAX}},
  };
  for (const auto& [at, size, numbers] : lies) {
    for (const std::uint64_t number : numbers) {
      EXPECT_FALSE(isRead(withNumber(bytes, trailer + at, size, number))) << at << ' ' << number;
    }
  }

  std::size_t survivors = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    for (const std::uint64_t mask : {0x01U, 0x08U, 0x10U, 0x80U, 0xFFU}) {
      survivors += isRead(withNumber(bytes, i, 1, numberAt(bytes, i, 1) ^ mask));
    }
  }
  std::vector<std::uint64_t> places{0, 7, table - 1, table, trailer, UINT16_MAX};
  for (std::size_t at = table; at < trailer; at += offsetSize) {
    places.push_back(numberAt(bytes, at, offsetSize));
  }
  for (std::size_t entry = table; entry < trailer; entry += offsetSize) {
    // Every object in the place of every other: cycles of all kinds.
    for (const std::uint64_t place : places) {
      survivors += isRead(withNumber(bytes, entry, offsetSize, place));
    }
    // Containers that are too large, also at the end of all objects.
    for (const std::uint64_t marker : {0x5F13U, 0x6F13U, 0xAF13U, 0xDF13U}) {
      for (const std::size_t at : {numberAt(bytes, entry, offsetSize), table - 2}) {
        const std::string huge = withNumber(bytes, at + 2, 8, UINT64_MAX);
        survivors += isRead(withNumber(withNumber(huge, at, 2, marker), entry, offsetSize, at));
      }
    }
  }
  EXPECT_GT(survivors, count);
}

}  // namespace
}  // namespace orbiq::test
