// The store of pairs and its files.
#include "velorin/Properties"

#include <errno.h>
#include <gmock/gmock.h>
#include <stdint.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>

#include "support/child.h"
#include "support/private_world.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using velorin::Properties;
using Pairs = std::map<std::string, std::string>;

// A derived class sees the members by their names.
class Store : public Properties {
 public:
  const Pairs& pairs() const { return properties; }
  const std::string& nothing() const { return nil; }
};

static_assert(std::is_polymorphic_v<Properties> && std::has_virtual_destructor_v<Properties>);
static_assert(std::is_copy_constructible_v<Properties> && std::is_copy_assignable_v<Properties>);
struct Layout {
  void* slots;
  Pairs properties;
  const std::string nil;
};
static_assert(sizeof(Properties) == sizeof(Layout), "no base and two members");

Pairs loaded(const std::string& text) {
  std::istringstream is(text);
  Store store;
  EXPECT_EQ(store.load(is), &store);
  return store.pairs();
}

std::string saved(Properties* store) {
  std::ostringstream os;
  EXPECT_EQ(store->save(os), store);
  return os.str();
}

std::string quoted(std::string v) {
  const std::string result = velorin::quote(v);
  EXPECT_EQ(v, result);
  return result;
}

std::string dequoted(std::string v) {
  const std::string result = velorin::dequote(v);
  EXPECT_EQ(v, result);
  return result;
}

// ---- Quoting ----

TEST(PropertiesTest, QuotePutsABackslashBeforeEveryEqualsSign) {
  EXPECT_EQ(quoted(""), "");
  EXPECT_EQ(quoted("plain\\text"), "plain\\text");
  EXPECT_EQ(quoted("="), "\\=");
  EXPECT_EQ(quoted("a=b==c"), "a\\=b\\=\\=c");
  EXPECT_EQ(quoted("\\="), "\\\\=");
  EXPECT_EQ(quoted(std::string("\0=\xFF\n", 4)), std::string("\0\\=\xFF\n", 5));
}

TEST(PropertiesTest, DequoteTakesOneBackslashBeforeEveryEqualsSignAway) {
  EXPECT_EQ(dequoted(""), "");
  EXPECT_EQ(dequoted("\\"), "\\");
  EXPECT_EQ(dequoted("="), "=");
  EXPECT_EQ(dequoted("\\="), "=");
  EXPECT_EQ(dequoted("a\\=b\\=\\=c"), "a=b==c");
  EXPECT_EQ(dequoted("\\\\="), "\\=");
  EXPECT_EQ(dequoted("\\\\\\=="), "\\\\==");
  EXPECT_EQ(dequoted("a\\nb\\"), "a\\nb\\");
}

TEST(PropertiesTest, QuotingIsUndoneByDequoting) {
  for (const std::string text : {"a\\", "\\=", "\\\\==\\", "=\\=\\"})
    EXPECT_EQ(dequoted(quoted(text)), text);
}

// ---- Pairs ----

TEST(PropertiesTest, NewStoreIsEmpty) {
  Store store;
  EXPECT_THAT(store.pairs(), IsEmpty());
  EXPECT_EQ(store.nothing(), "");
  EXPECT_THAT(store.getKeys(), IsEmpty());
}

TEST(PropertiesTest, SetInsertsOrReplaces) {
  Store store;
  EXPECT_EQ(store.set("k", "1"), &store);
  EXPECT_EQ(store.set("k", "2"), &store);
  EXPECT_THAT(store.pairs(), ElementsAre(Pair("k", "2")));
}

TEST(PropertiesTest, GetOfAnAbsentKeyIsEmptyAndInsertsNothing) {
  Store store;
  EXPECT_EQ(store.get("k"), "");
  EXPECT_FALSE(store.contains("k"));
  EXPECT_THAT(store.pairs(), IsEmpty());
}

TEST(PropertiesTest, EmptyValueIsContained) {
  Properties store;
  store.set("k", "")->set("", "of no key");
  EXPECT_TRUE(store.contains("k"));
  EXPECT_EQ(store.get("k"), "");
  EXPECT_EQ(store.get(""), "of no key");
}

TEST(PropertiesTest, RemoveOfAnAbsentKeyIsNoError) {
  Store store;
  store.set("a", "1")->set("b", "2");
  EXPECT_EQ(store.remove("a"), &store);
  EXPECT_EQ(store.remove("a"), &store);
  EXPECT_THAT(store.pairs(), ElementsAre(Pair("b", "2")));
}

TEST(PropertiesTest, KeysAreInByteOrder) {
  Properties store;
  for (const char* key : {"a9", "\xC3\xA9", "b", "a10", "B", "Z", "a", ""}) store.set(key, "v");
  EXPECT_THAT(store.getKeys(), ElementsAre("", "B", "Z", "a", "a10", "a9", "b", "\xC3\xA9"));
}

TEST(PropertiesTest, CopyIsAStoreOfItsOwn) {
  Store store;
  store.set("k", "1");
  Store copy(store);
  copy.set("k", "2");
  EXPECT_EQ(store.get("k"), "1");
  Store other;
  other.set("x", "y");
  other = copy;
  copy.set("k", "3");
  EXPECT_THAT(other.pairs(), ElementsAre(Pair("k", "2")));
}

// ---- Reading lines ----

TEST(PropertiesTest, LinesOfPairsAreRead) {
  EXPECT_EQ(loaded("a=1\nb=two words\nc="), (Pairs{{"a", "1"}, {"b", "two words"}, {"c", ""}}));
  EXPECT_EQ(loaded(""), Pairs());
}

TEST(PropertiesTest, LastLineForAKeyWins) {
  EXPECT_EQ(loaded("x=1\nx=2\n"), (Pairs{{"x", "2"}}));
  EXPECT_EQ(loaded("b=1\na=1\nb=2\na=\n"), (Pairs{{"a", ""}, {"b", "2"}}));
}

TEST(PropertiesTest, EmptyLinesCommentsAndEmptyKeysAreSkipped) {
  EXPECT_EQ(loaded("\n#a=1\n#\n=v\n=\n\nb=2\n"), (Pairs{{"b", "2"}}));
}

TEST(PropertiesTest, NumberSignElsewhereIsText) {
  EXPECT_EQ(loaded(" #a=1\nb#=2#\n #alone\n"),
            (Pairs{{" #a", "1"}, {"b#", "2#"}, {" #alone", " #alone"}}));
}

TEST(PropertiesTest, LineWithoutAnEqualsSignIsKeyAndValue) {
  EXPECT_EQ(loaded("flag\nfl\\ag"), (Pairs{{"flag", "flag"}, {"fl\\ag", "fl\\ag"}}));
}

TEST(PropertiesTest, NothingIsTrimmed) {
  EXPECT_EQ(loaded("a = b\n\tc=d \r\n \n"), (Pairs{{"a ", " b"}, {"\tc", "d \r"}, {" ", " "}}));
}

TEST(PropertiesTest, KeyEndsAtTheFirstEqualsSignAndOnlyTheValueIsDequoted) {
  EXPECT_EQ(loaded("k=a\\=b=c\n"), (Pairs{{"k", "a=b=c"}}));
  EXPECT_EQ(loaded("k\\=a\\=b\n"), (Pairs{{"k\\", "a=b"}}));
}

TEST(PropertiesTest, ZeroByteCutsALine) {
  using namespace std::string_literals;
  EXPECT_EQ(loaded("a=1\0=2\nb\0=3\n\0c=4\nd=5\n"s), (Pairs{{"a", "1"}, {"b", "b"}, {"d", "5"}}));
}

TEST(PropertiesTest, LineOf1023CharactersIsRead) {
  const std::string value(1021, 'v');
  EXPECT_EQ(loaded("k=" + value + "\nb=2\n"), (Pairs{{"k", value}, {"b", "2"}}));
  EXPECT_EQ(loaded("k=" + value), (Pairs{{"k", value}}));
}

TEST(PropertiesTest, LineOf1024CharactersEndsTheLoad) {
  const std::string value(1022, 'v');
  EXPECT_EQ(loaded("a=1\nk=" + value + "\nb=2\n"), (Pairs{{"a", "1"}}));
  EXPECT_EQ(loaded("a=1\nk=" + value), (Pairs{{"a", "1"}}));
  EXPECT_EQ(loaded("a=1\n#" + std::string(5000, 'c') + "\nb=2\n"), (Pairs{{"a", "1"}}));
}

TEST(PropertiesTest, LoadMergesIntoTheStore) {
  Store store;
  store.set("kept", "0")->set("x", "old");
  std::istringstream is("x=new\ny=1\n");
  store.load(is);
  EXPECT_EQ(store.pairs(), (Pairs{{"kept", "0"}, {"x", "new"}, {"y", "1"}}));
}

TEST(PropertiesTest, FailedStreamIsNotRead) {
  for (const auto state : {std::ios::failbit, std::ios::badbit}) {
    std::istringstream is("a=1\n");
    is.setstate(state);
    Store store;
    EXPECT_EQ(store.load(is), &store);
    EXPECT_THAT(store.pairs(), IsEmpty());
    is.clear();
    std::string line;
    EXPECT_TRUE(getline(is, line));
    EXPECT_EQ(line, "a=1");
  }
}

TEST(PropertiesTest, StreamAtItsEndHasFailedAfterwards) {
  std::istringstream is("a=1");
  Properties().load(is);
  EXPECT_TRUE(is.eof());
  EXPECT_TRUE(is.fail());
}

// ---- Writing lines ----

TEST(PropertiesTest, SaveWritesPairsInByteOrderWithQuotedValues) {
  Properties store;
  store.set("a9", "2")->set("a10", "1")->set("b", "x=\\=y")->set("B", "")->set("k=", "v");
  EXPECT_EQ(saved(&store), "B=\na10=1\na9=2\nb=x\\=\\\\=y\nk==v\n");
  EXPECT_EQ(store.get("b"), "x=\\=y");
}

TEST(PropertiesTest, SaveOfAnEmptyStoreWritesNothing) {
  Properties store;
  EXPECT_EQ(saved(&store), "");
}

TEST(PropertiesTest, EveryLineIsFlushed) {
  struct Counter : std::stringbuf {
    int flushes = 0;
    int sync() override {
      ++flushes;
      return 0;
    }
  } buffer;
  std::ostream os(&buffer);
  Properties store;
  store.set("a", "1")->set("b", "2")->save(os);
  EXPECT_EQ(buffer.flushes, 2);
}

TEST(PropertiesTest, SavedPairsAreLoadedAgain) {
  Store store;
  store.set("a b", " x = y\\ ")->set("\t", "\r")->set("k", "")->set("\xFF", "#\\\\=\\=");
  store.set("long", std::string(1018, 'v'));
  store.set("", "");  // is not, its line begins with the equals sign
  Pairs expected = store.pairs();
  expected.erase("");
  EXPECT_EQ(loaded(saved(&store)), expected);
}

TEST(PropertiesTest, RoundTripLosesWhatTheFormatCannotHold) {
  Store store;
  store.set("k=1", "v")->set("#c", "v")->set("n", "a\nb");
  EXPECT_EQ(loaded(saved(&store)), (Pairs{{"k", "1=v"}, {"n", "a"}, {"b", "b"}}));
}

// ---- Files ----

class PropertiesFileTest : public PrivateWorld {};

TEST_F(PropertiesFileTest, FilesAreSavedAndLoaded) {
  Store store;
  store.set("a", "x=y");
  const std::string name = "/tmp/n e\"w\x80";
  write(name, "longer than what is saved, and gone then\n");
  EXPECT_EQ(store.save(name), 0);
  EXPECT_EQ(read(name), "a=x\\=y\n");
  Store other;
  other.set("b", "kept");
  EXPECT_EQ(other.load(name), 0);
  EXPECT_EQ(other.pairs(), (Pairs{{"a", "x=y"}, {"b", "kept"}}));
}

TEST_F(PropertiesFileTest, LoadOfAMissingFileKeepsThePairs) {
  Store store;
  store.set("a", "1");
  EXPECT_EQ(store.load("/tmp/missing"), -ENOENT);
  EXPECT_EQ(store.load(""), -ENOENT);
  write("/tmp/f", "b=2\n");
  EXPECT_EQ(store.load("/tmp/f/x"), -ENOTDIR);
  EXPECT_EQ(store.pairs(), (Pairs{{"a", "1"}}));
}

TEST_F(PropertiesFileTest, FilesThatCannotBeOpenedGiveMinusTheErrorNumber) {
  Properties store;
  EXPECT_EQ(store.save("/tmp/no/f"), -ENOENT);
  EXPECT_EQ(store.save("/tmp"), -EISDIR);
  write("/tmp/f", "");
  ASSERT_EQ(chmod("/tmp/f", 0), 0);
  errorsOf([&] {
    becomeUser(1234);
    EXPECT_EQ(store.load("/tmp/f"), -EACCES);
    EXPECT_EQ(store.save("/tmp/f"), -EACCES);
  });
}

TEST_F(PropertiesFileTest, SaveOnAReadOnlyFileSystemGivesItsErrorNumber) {
  cover("/mnt/fixed");
  ASSERT_EQ(mount("none", "/mnt/fixed", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(Properties().save("/mnt/fixed/f"), -EROFS);
  EXPECT_EQ(umount2("/mnt/fixed", MNT_DETACH), 0);
}

TEST_F(PropertiesFileTest, DirectoryIsLoadedAsAnEmptyFile) {
  EXPECT_EQ(Properties().load("/tmp"), 0);
}

TEST_F(PropertiesFileTest, SaveToAFullDiskGivesZero) {
  Properties store;
  store.set("a", "1");
  EXPECT_EQ(store.save("/dev/full"), 0);
}

TEST_F(PropertiesFileTest, NothingIsLogged) {
  Properties().load("/tmp/missing");
  EXPECT_THAT(daemon().waiting(), IsEmpty());
}

// ---- Derived classes ----

// Has a format of its own, and tells which operation was called.
class Derived : public Properties {
 public:
  explicit Derived(std::string* called) : called_(called) {}
  ~Derived() override { *called_ += "~"; }
  using Properties::load;
  using Properties::save;
  Properties* load(std::istream& is) override {
    std::string word;
    while (is >> word) set(word, "from a word");
    return this;
  }
  Properties* save(std::ostream& os) override {
    os << "in another format";
    return this;
  }

 private:
  std::string* called_;
};

TEST_F(PropertiesFileTest, DerivedStreamFormsChangeTheFileForms) {
  std::string called;
  Properties* const store = new Derived(&called);
  write("/tmp/f", "one two");
  EXPECT_EQ(store->load("/tmp/f"), 0);
  EXPECT_EQ(store->get("two"), "from a word");
  EXPECT_EQ(store->save("/tmp/f"), 0);
  EXPECT_EQ(read("/tmp/f"), "in another format");
  delete store;
  EXPECT_EQ(called, "~");
}

// Overrides everything; each operation notes its name.
class Noting : public Properties {
 public:
  explicit Noting(std::string* to) : to_(to) {}
  ~Noting() override { *to_ += "destructor "; }
  int load(std::string) override { return note("load-file", 0); }
  Properties* load(std::istream&) override { return note("load-stream", this); }
  int save(std::string) override { return note("save-file", 0); }
  Properties* save(std::ostream&) override { return note("save-stream", this); }
  Properties* remove(std::string) override { return note("remove", this); }
  std::set<std::string> getKeys() override { return note("getKeys", std::set<std::string>()); }
  std::string get(std::string) override { return note("get", std::string()); }
  Properties* set(std::string, std::string) override { return note("set", this); }

 private:
  template <class Result>
  Result note(const char* name, Result result) {
    *to_ += std::string(name) + " ";
    return result;
  }
  std::string* to_;
};

// Where the virtual table has an operation: the compiler's pointer to it holds one more than the
// offset.
template <class Operation>
size_t slotOf(Operation operation) {
  uintptr_t words[2];
  static_assert(sizeof words == sizeof operation);
  memcpy(words, &operation, sizeof words);
  return (words[0] - 1) / sizeof(void*);
}

TEST(PropertiesTest, VirtualSlotsAreInOrder) {
  // The destructor has two.
  EXPECT_EQ(slotOf(static_cast<int (Properties::*)(std::string)>(&Properties::load)), 2u);
  EXPECT_EQ(slotOf(static_cast<Properties* (Properties::*)(std::istream&)>(&Properties::load)), 3u);
  EXPECT_EQ(slotOf(static_cast<int (Properties::*)(std::string)>(&Properties::save)), 4u);
  EXPECT_EQ(slotOf(static_cast<Properties* (Properties::*)(std::ostream&)>(&Properties::save)), 5u);
  EXPECT_EQ(slotOf(&Properties::remove), 6u);
  EXPECT_EQ(slotOf(&Properties::getKeys), 7u);
  EXPECT_EQ(slotOf(&Properties::get), 8u);
  EXPECT_EQ(slotOf(&Properties::set), 9u);
}

TEST(PropertiesTest, AllOperationsButContainsAreVirtual) {
  std::string called;
  {
    Noting noting(&called);
    Properties& store = noting;
    std::stringstream stream;
    store.load(stream);
    store.load(std::string());
    store.save(stream);
    store.save(std::string());
    store.remove("");
    store.getKeys();
    store.get("");
    store.set("", "");
    EXPECT_FALSE(store.contains(""));
  }
  EXPECT_EQ(called,
            "load-stream load-file save-stream save-file remove getKeys get set destructor ");
}

}  // namespace
