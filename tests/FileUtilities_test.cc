// What paths name, room on file systems, path texts and files of one value. File systems, clocks
// and disk errors that no test machine has are put in place of the system's.
#undef _FORTIFY_SOURCE  // its inline forms cannot be defined again
#include "velorin/FileUtilities"

#include <ctype.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <signal.h>
#include <stdint.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <locale>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/files_world.h"

namespace {

// What stands in for the system in this process.
struct FileCalls {
  std::optional<struct statfs> room;              // what statfs says
  std::vector<useconds_t>* sleeps = nullptr;      // where calls of usleep go
  std::optional<timeval> now;                     // what gettimeofday says
  std::function<ssize_t(void*, size_t)> on_read;  // what read does
};
FileCalls calls;

template <typename Function>
Function* lookUp(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)

extern "C" int statfs(const char* path, struct statfs* room) noexcept {
  static const auto real = lookUp<int(const char*, struct statfs*)>("statfs64");
  if (!calls.room) return real(path, room);
  *room = *calls.room;
  return 0;
}

extern "C" int usleep(useconds_t microseconds) {
  if (calls.sleeps != nullptr) calls.sleeps->push_back(microseconds);
  return 0;
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
  if (calls.now) {
    *now = *calls.now;
    return 0;
  }
  timespec real;
  (void)clock_gettime(CLOCK_REALTIME, &real);
  *now = {real.tv_sec, real.tv_nsec / 1000};
  return 0;
}

extern "C" ssize_t read(int fd, void* room, size_t size) {
  static const auto real = lookUp<decltype(read)>("read");
  return calls.on_read ? calls.on_read(room, size) : real(fd, room, size);
}

#pragma GCC visibility pop

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileUtilitiesTest : public FilesWorld {
 protected:
  ~FileUtilitiesTest() override { calls = FileCalls(); }

  // A name in the folder of the test.
  static std::string at(const std::string& name) { return "/tmp/" + name; }

  static std::string file(const std::string& name, const std::string& contents = "") {
    write(at(name), contents);
    return at(name);
  }
};

// ---- The clock ----

TEST_F(FileUtilitiesTest, SleepMsSleepsAThousandMicrosecondsForEach) {
  std::vector<useconds_t> sleeps;
  calls.sleeps = &sleeps;
  sleepMs(0);
  sleepMs(1);
  sleepMs(2147483);
  EXPECT_THAT(sleeps, ElementsAre(0, 1000, 2147483000));
}

TEST_F(FileUtilitiesTest, SleepMsWrapsIn32Bits) {
  std::vector<useconds_t> sleeps;
  calls.sleeps = &sleeps;
  sleepMs(2147484);
  sleepMs(4294968);
  sleepMs(INT_MAX);
  sleepMs(-1);
  sleepMs(INT_MIN);
  EXPECT_THAT(sleeps, ElementsAre(2147484000u, 704, 4294966296u, 4294966296u, 0));
}

TEST_F(FileUtilitiesTest, CvGetTimeIsTheClockToTheMicrosecond) {
  calls.now = timeval{1000000000, 250000};
  EXPECT_EQ(cvGetTime(), 1000000000.25);
  calls.now = timeval{1700000000, 999999};
  EXPECT_DOUBLE_EQ(cvGetTime(), 1700000000.999999);
  calls.now.reset();
  const time_t before = time(nullptr);
  EXPECT_GE(cvGetTime(), static_cast<double>(before));
}

TEST_F(FileUtilitiesTest, LastModificationTimeFollowsLinks) {
  const std::string name = file("f");
  const timeval times[] = {{5, 0}, {1234567890, 0}};
  ASSERT_EQ(utimes(name.c_str(), times), 0);
  ASSERT_EQ(symlink("f", "/tmp/link"), 0);
  EXPECT_EQ(lastModificationTime(name), 1234567890);
  EXPECT_EQ(lastModificationTime(at("link")), 1234567890);
}

TEST_F(FileUtilitiesTest, LastModificationTimeOfNothingIsMinusOne) {
  EXPECT_EQ(lastModificationTime(at("missing")), -1);
  EXPECT_EQ(lastModificationTime(""), -1);
  EXPECT_EQ(lastModificationTime(file("f") + "/x"), -1);
  EXPECT_THAT(lines(), IsEmpty());
}

// The system's calls refuse what they cannot tell, on the 32-bit target.
TEST_F(FileUtilitiesTest, FileDatedBehindTheEndOfTimeCannotBeLookedUp) {
  const std::string name = file("f");
  ASSERT_EQ(runProgram({"/bin/touch", "-d", "2040-01-01 00:00:00 UTC", name}).exitCode(), 0);
  const bool told = sizeof(time_t) == 8;
  EXPECT_EQ(isRegularFile(name), told);
  EXPECT_EQ(static_cast<long long>(lastModificationTime(name)), told ? 2208988800LL : -1LL);
}

// ---- What a path names ----

struct Kind {
  const char* label;
  const char* name;
  bool executable, link, regular, directory;
};
void PrintTo(const Kind& kind, std::ostream* to) {
  *to << kind.label;
}

class FileKindTest : public FileUtilitiesTest, public testing::WithParamInterface<Kind> {
 protected:
  FileKindTest() {
    file("plain");
    file("program");
    for (const auto& [name, mode] :
         {std::pair("owner", 0100), std::pair("group", 0010), std::pair("other", 0001)})
      EXPECT_EQ(chmod(file(name).c_str(), static_cast<mode_t>(mode)), 0);
    EXPECT_EQ(chmod("/tmp/program", 0755), 0);
    EXPECT_EQ(mkdir("/tmp/dir", 0755), 0);
    EXPECT_EQ(mkfifo("/tmp/fifo", 0755), 0);
    for (const char* target : {"plain", "program", "dir", "nothing"})
      EXPECT_EQ(symlink(target, at(std::string("to_") + target).c_str()), 0);
    EXPECT_EQ(symlink("loop", "/tmp/loop"), 0);
    file("b l\"a'n$k\xFF\x80");
    std::ofstream sparse("/tmp/sparse");
    std::filesystem::resize_file("/tmp/sparse", uintmax_t{5} << 30);
  }
};

TEST_P(FileKindTest, IsToldByEveryPredicate) {
  const std::string name = at(GetParam().name);
  EXPECT_EQ(isExecutableFile(name), GetParam().executable);
  EXPECT_EQ(isSymbolicLink(name), GetParam().link);
  EXPECT_EQ(isRegularFile(name), GetParam().regular);
  EXPECT_EQ(isDirectory(name), GetParam().directory);
  EXPECT_THAT(lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Paths, FileKindTest,
    testing::Values(Kind{"RegularFile", "plain", false, false, true, false},
                    Kind{"ExecutableForAll", "program", true, false, true, false},
                    Kind{"ExecutableForTheOwner", "owner", true, false, true, false},
                    Kind{"ExecutableForTheGroup", "group", true, false, true, false},
                    Kind{"ExecutableForOthers", "other", true, false, true, false},
                    Kind{"DirectoryWithExecuteBits", "dir", false, false, false, true},
                    Kind{"FifoWithExecuteBits", "fifo", false, false, false, false},
                    Kind{"LinkToRegularFile", "to_plain", false, true, true, false},
                    Kind{"LinkToExecutable", "to_program", true, true, true, false},
                    Kind{"LinkToDirectory", "to_dir", false, true, false, true},
                    Kind{"DanglingLink", "to_nothing", false, true, false, false},
                    Kind{"LinkToItself", "loop", false, true, false, false},
                    Kind{"LinkWithASlashBehind", "to_dir/", false, false, false, true},
                    Kind{"Missing", "missing", false, false, false, false},
                    Kind{"BelowAFile", "plain/x", false, false, false, false},
                    Kind{"StrangeName", "b l\"a'n$k\xFF\x80", false, false, true, false},
                    Kind{"LargeFile", "sparse", false, false, true, false},
                    Kind{"Folder", "", false, false, false, true}),
    [](const auto& row) { return std::string(row.param.label); });

TEST_F(FileUtilitiesTest, EmptyPathNamesNothing) {
  EXPECT_FALSE(isExecutableFile("") || isSymbolicLink("") || isRegularFile("") || isDirectory(""));
}

TEST_F(FileUtilitiesTest, ExecutableNeedsNoPermissionForThisProcess) {
  const std::string name = file("f");
  ASSERT_EQ(chmod(name.c_str(), 0700), 0);
  errorsOf([&] {
    becomeUser(1234);
    EXPECT_TRUE(isExecutableFile(name));
  });
}

TEST_F(FileUtilitiesTest, WhatCannotBeLookedUpIsOfNoKind) {
  ASSERT_EQ(mkdir("/tmp/closed", 0700), 0);
  file("closed/f");
  ASSERT_EQ(symlink("f", "/tmp/closed/link"), 0);
  errorsOf([] {
    becomeUser(1234);
    EXPECT_FALSE(isRegularFile("/tmp/closed/f"));
    EXPECT_FALSE(isSymbolicLink("/tmp/closed/link"));
    EXPECT_EQ(lastModificationTime("/tmp/closed/f"), -1);
  });
}

// ---- Room on a file system ----

class DiskSpaceTest : public FileUtilitiesTest {
 protected:
  // The file system that statfs tells of.
  static struct statfs& room(uint64_t available, long block_size, uint64_t blocks = 100) {
    struct statfs s = {};
    s.f_blocks = blocks;
    s.f_bavail = available;
    s.f_bsize = static_cast<decltype(s.f_bsize)>(block_size);
    calls.room = s;
    return *calls.room;
  }

  // Both functions fail and store nothing.
  void expectFailure(int err) {
    unsigned kb = 1, high = 2, low = 3;
    int percent = 4;
    errno = 0;
    EXPECT_EQ(cvGetDiskFreeSpaceInKB(path_, kb), -1);
    EXPECT_EQ(errno, err);
    errno = 0;
    EXPECT_EQ(cvGetDiskFreeSpace(path_, high, low, percent), -1);
    EXPECT_EQ(errno, err);
    EXPECT_THAT(std::vector<unsigned>({kb, high, low}), ElementsAre(1, 2, 3));
    EXPECT_EQ(percent, 4);
    EXPECT_THAT(lines(), IsEmpty());
  }

  unsigned kilobytes() {
    unsigned kb = 77;
    EXPECT_EQ(cvGetDiskFreeSpaceInKB(path_, kb), 0);
    return kb;
  }

  // The two words and the percentage.
  std::vector<unsigned> space() {
    unsigned high = 77, low = 77;
    int percent = 77;
    EXPECT_EQ(cvGetDiskFreeSpace(path_, high, low, percent), 0);
    return {high, low, static_cast<unsigned>(percent)};
  }

  std::string path_ = "/tmp";
};

TEST_F(DiskSpaceTest, KilobytesAreBlocksDividedByAThousandAndTwentyFourTimesTheirSize) {
  room(1023, 4096);
  EXPECT_EQ(kilobytes(), 0u);
  room(1024, 4096);
  EXPECT_EQ(kilobytes(), 4096u);
  room(2047, 4096);
  EXPECT_EQ(kilobytes(), 4096u);
  room(2000000, 4096);
  EXPECT_EQ(kilobytes(), 7999488u);
  room(1024, 512);
  EXPECT_EQ(kilobytes(), 512u);
}

TEST_F(DiskSpaceTest, KilobytesWrapIn32Bits) {
  room(0xFFFFFFFF, 4096);
  EXPECT_EQ(kilobytes(), 4294963200u);  // 4194303 times 4096, less three times 2^32
  room(0xC0000000, 65536);
  EXPECT_EQ(kilobytes(), 0u);
}

TEST_F(DiskSpaceTest, BytesAreExactForPowersOfTwo) {
  room(2000000, 4096, 4000000);
  EXPECT_THAT(space(), ElementsAre(1, 3897032704u, 50));
  room(0xFFFFFFFF, 1, 0xFFFFFFFF);
  EXPECT_EQ(space()[0], 0u);
  EXPECT_EQ(space()[1], 0xFFFFFFFFu);
  room(0xFFFFFFFF, 4096, 0xFFFFFFFF);
  EXPECT_EQ(space()[0], 0xFFFu);
  EXPECT_EQ(space()[1], 0xFFFFF000u);
  room(0, 4096);
  EXPECT_THAT(space(), ElementsAre(0, 0, 0));
}

TEST_F(DiskSpaceTest, NoCarryPassesFromTheLowToTheHighWord) {
  room(0xC0000000, 3, 0xFFFFFFFF);
  EXPECT_EQ(space()[0], 1u);
  EXPECT_EQ(space()[1], 1073741824u);
}

TEST_F(DiskSpaceTest, OtherBlockSizesAreExactWhileNothingOverflows) {
  room(1000000, 1536, 1000000);
  EXPECT_THAT(space(), ElementsAre(0, 1536000000u, 100));
}

TEST_F(DiskSpaceTest, BlockSizeOfNothingIsNoRoom) {
  room(5, 0);
  EXPECT_THAT(space(), ElementsAre(0, 0, 5));
  EXPECT_EQ(kilobytes(), 0u);
}

TEST_F(DiskSpaceTest, PercentageIsOfWhatUnprivilegedUsersMayUseRoundedDown) {
  room(1999, 1, 3000).f_bfree = 3000;
  EXPECT_EQ(space()[2], 66u);
  room(3000, 1, 3000);
  EXPECT_EQ(space()[2], 100u);
  room(29, 1, 3000);
  EXPECT_EQ(space()[2], 0u);
}

TEST_F(DiskSpaceTest, PercentageWrapsIn32Bits) {
  room(42949672, 1, 42949673);
  EXPECT_EQ(space()[2], 99u);
  room(42949673, 1, 42949673);  // 100 times that is 4
  EXPECT_EQ(space()[2], 0u);
  room(0xFFFFFFFF, 1, 1);  // -100 in 32 bits
  EXPECT_EQ(space()[2], 4294967196u);
}

TEST_F(DiskSpaceTest, CountsThatDoNotFit32BitsAreAFailureOnBothTargets) {
  const uint64_t many = uint64_t{1} << 32;
  room(1, 1).f_blocks = many;
  expectFailure(EOVERFLOW);
  room(1, 1).f_bfree = many;
  expectFailure(EOVERFLOW);
  room(1, 1).f_bavail = many;
  expectFailure(EOVERFLOW);
  room(1, 1).f_files = many;
  expectFailure(EOVERFLOW);
  room(1, 1).f_ffree = UINT64_MAX - 1;
  expectFailure(EOVERFLOW);
  if (sizeof(long) == 8) {
    room(1, static_cast<long>(many));
    expectFailure(EOVERFLOW);
    room(1, 1).f_frsize = static_cast<long>(many);
    expectFailure(EOVERFLOW);
    room(1, -1);
    expectFailure(EOVERFLOW);
  }
}

TEST_F(DiskSpaceTest, NumberOfFilesMayBeUnknown) {
  struct statfs& s = room(1024, 1);
  s.f_files = UINT64_MAX;
  s.f_ffree = UINT64_MAX;
  EXPECT_EQ(kilobytes(), 1u);
}

TEST_F(DiskSpaceTest, SizeWithItsHighestBitSetComesToAnEnd) {
  room(2, static_cast<long>(0x80000000u));
  EXPECT_THAT(space(), ElementsAre(1, 0, 2));
}

TEST_F(DiskSpaceTest, KeptPathsAreTakenByAReferenceThatIsNotConstant) {
  int (*const in_kilobytes)(std::string&, unsigned&) = cvGetDiskFreeSpaceInKB;
  int (*const in_bytes)(std::string&, unsigned&, unsigned&, int&) = cvGetDiskFreeSpace;
  path_ = "/";
  unsigned high, low;
  int percent;
  EXPECT_EQ(in_kilobytes(path_, low), 0);
  EXPECT_EQ(in_bytes(path_, high, low, percent), 0);
  EXPECT_EQ(path_, "/");
}

TEST_F(DiskSpaceTest, PathThatCannotBeLookedUpIsAFailure) {
  path_ = "/tmp/missing";
  expectFailure(ENOENT);
  path_ = file("f") + "/x";
  expectFailure(ENOTDIR);
  path_ = "";
  expectFailure(ENOENT);
  EXPECT_EQ(path_, "");
}

TEST_F(DiskSpaceTest, FileSystemWithoutBlocksIsACriticalLineAndNoMore) {
  room(2048, 4, 0);
  EXPECT_EQ(kilobytes(), 8u);
  EXPECT_THAT(lines(),
              ElementsAre("CRTC FileUtilities.cc: Assertion (statBuf.f_blocks != 0) failed"));
}

TEST_F(DiskSpaceTest, ProcHasNoBlocks) {
  path_ = "/proc";
  EXPECT_EQ(kilobytes(), 0u);
  EXPECT_THAT(lines(),
              ElementsAre("CRTC FileUtilities.cc: Assertion (statBuf.f_blocks != 0) failed"));
}

TEST_F(DiskSpaceTest, FileSystemWithoutBlocksIsReportedOnStandardErrorWithoutADaemon) {
  room(2048, 4, 0);
  removeDaemon();
  const std::string errors = errorsOf([&] { kilobytes(); });
  EXPECT_THAT(errors, testing::ContainsRegex("\\([0-9]+\\)CRTC:FileUtilities.cc:[0-9]+-> "
                                             "Assertion \\(statBuf.f_blocks != 0\\) failed\n"));
}

TEST_F(DiskSpaceTest, PercentageOfNoBlocksIsAnArithmeticFault) {
  room(2048, 4, 0);
  const ChildResult child = runInChild([&] {
    // A sanitizer's own handler would tell of the fault and exit.
    (void)::signal(SIGFPE, SIG_DFL);
    (void)space();
  });
  EXPECT_EQ(child.signal(), SIGFPE) << child;
  const std::vector<std::string> texts = daemon().waiting();
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_THAT(texts[0], testing::MatchesRegex("\\([0-9]+\\)CRTC:FileUtilities.cc:[0-9]+-> "
                                              "Assertion \\(statBuf.f_blocks != 0\\) failed"));
}

TEST_F(DiskSpaceTest, RealFileSystemIsMeasured) {
  cover("/mnt/small");
  ASSERT_EQ(mount("none", "/mnt/small", nullptr, MS_REMOUNT, "size=16m"), 0);
  path_ = "/mnt/small";
  EXPECT_EQ(kilobytes(), 16384u);  // 4096 blocks of 4096
  EXPECT_THAT(space(), ElementsAre(0, 16u << 20, 100));
  std::ofstream("/mnt/small/f") << std::string(12 << 20, 'x');
  EXPECT_THAT(space(), ElementsAre(0, 4u << 20, 25));
  std::ofstream("/mnt/small/g") << std::string(5 << 20, 'x');
  EXPECT_THAT(space(), ElementsAre(0, 0, 0));
  EXPECT_EQ(kilobytes(), 0u);
  EXPECT_EQ(umount2("/mnt/small", MNT_DETACH), 0);
}

// ---- Path texts ----

TEST(FilePathTest, DirectoryOfIsAllUpToTheLastSlash) {
  EXPECT_EQ(directoryOf("/a/b"), "/a/");
  EXPECT_EQ(directoryOf("/"), "/");
  EXPECT_EQ(directoryOf("/x"), "/");
  EXPECT_EQ(directoryOf("x"), "./");
  EXPECT_EQ(directoryOf(""), "./");
  EXPECT_EQ(directoryOf("a//b"), "a//");
  EXPECT_EQ(directoryOf("/a/b/"), "/a/b/");
  EXPECT_EQ(directoryOf(std::string("a/\0b", 4)), "a/");
}

TEST(FilePathTest, BaseNameIsAllBehindTheLastSlash) {
  EXPECT_EQ(baseName("/a/b"), "b");
  EXPECT_EQ(baseName("/a/b/"), "");
  EXPECT_EQ(baseName("b"), "b");
  EXPECT_EQ(baseName("/"), "");
  EXPECT_EQ(baseName(""), "");
  EXPECT_EQ(baseName(std::string("a/\0b", 4)), std::string("\0b", 2));
}

TEST(FilePathTest, AppendSlashAddsOneUnlessThereIsOneOrNothing) {
  EXPECT_EQ(appendSlash(""), "");
  EXPECT_EQ(appendSlash("a"), "a/");
  EXPECT_EQ(appendSlash("a/"), "a/");
  EXPECT_EQ(appendSlash("/"), "/");
  EXPECT_EQ(appendSlash("a//"), "a//");
}

// ---- Touching ----

TEST_F(FileUtilitiesTest, TouchFileSetsBothTimesAndLeavesTheContents) {
  const std::string name = file("f", "contents");
  const timeval old[] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(utimes(name.c_str(), old), 0);
  const time_t before = time(nullptr);
  touchFile(name);
  struct stat status;
  ASSERT_EQ(stat(name.c_str(), &status), 0);
  EXPECT_GE(status.st_atime, before);
  EXPECT_GE(status.st_mtime, before);
  EXPECT_EQ(read(name), "contents");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(FileUtilitiesTest, TouchFileMakesAnEmptyFileWithTheUmask) {
  const mode_t old = umask(027);
  touchFile(at("n e\"w\x80"));
  umask(old);
  struct stat status;
  ASSERT_EQ(stat("/tmp/n e\"w\x80", &status), 0);
  EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFREG | 0640));
  EXPECT_EQ(status.st_size, 0);
}

TEST_F(FileUtilitiesTest, TouchFileTouchesDirectoriesAndMakesTheTargetOfADanglingLink) {
  touchFile("/tmp");
  ASSERT_EQ(symlink("target", "/tmp/link"), 0);
  touchFile(at("link"));
  EXPECT_TRUE(isRegularFile(at("target")));
}

TEST_F(FileUtilitiesTest, TouchFileLeavesNoDescriptorOpen) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  touchFile(at("f"));
  EXPECT_EQ(descriptors(), before);
}

TEST_F(FileUtilitiesTest, TouchFileThatCannotCreateThrows) {
  EXPECT_EQ(thrownBy([] { touchFile("/tmp/no/f"); }),
            "-1 \"Cannot create /tmp/no/f: No such file or directory\"");
  EXPECT_EQ(thrownBy([] { touchFile(""); }), "-1 \"Cannot create : No such file or directory\"");
  ASSERT_EQ(mkdir("/tmp/closed", 0755), 0);
  errorsOf([] {
    becomeUser(1234);
    EXPECT_EQ(thrownBy([] { touchFile("/tmp/closed/f"); }),
              "-1 \"Cannot create /tmp/closed/f: Permission denied\"");
  });
}

TEST_F(FileUtilitiesTest, TouchFileThatCannotTouchThrows) {
  const std::string name = file("f");
  EXPECT_EQ(thrownBy([&] { touchFile(name + "/x"); }),
            "-1 \"Cannot touch /tmp/f/x: Not a directory\"");
  ASSERT_EQ(chmod(name.c_str(), 0644), 0);
  errorsOf([&] {
    becomeUser(1234);
    EXPECT_EQ(thrownBy([&] { touchFile(name); }), "-1 \"Cannot touch /tmp/f: Permission denied\"");
  });
}

TEST_F(FileUtilitiesTest, TouchFileOnAReadOnlyFileSystemThrows) {
  cover("/mnt/fixed");
  write("/mnt/fixed/f", "");
  ASSERT_EQ(mount("none", "/mnt/fixed", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(thrownBy([] { touchFile("/mnt/fixed/f"); }),
            "-1 \"Cannot touch /mnt/fixed/f: Read-only file system\"");
  EXPECT_EQ(thrownBy([] { touchFile("/mnt/fixed/g"); }),
            "-1 \"Cannot create /mnt/fixed/g: Read-only file system\"");
  EXPECT_EQ(umount2("/mnt/fixed", MNT_DETACH), 0);
}

// ---- Files that hold one value ----

// Reading a value with the standard library's own file stream; what failed extraction does is as
// the readers have it.
struct Reference {
  std::string word;
  long number;
  std::string line;
};

Reference referenceOf(const std::string& name, const std::string& word, long number) {
  Reference result = {word, number, ""};
  std::ifstream(name) >> result.word;
  std::ifstream stream(name);
  long value;
  if (stream >> value) result.number = value;
  int c;
  while ((c = stream.get()) != EOF && isspace(c)) continue;
  if (c == EOF) {
    result.line = "TRCE FileUtilities.cc: Read the value " + std::to_string(result.number) +
                  " from the file " + name;
  } else {
    result.number = number;
    result.line = "ERRO Logger: Expected end of file in " + name + ", got `";
  }
  return result;
}

struct Contents {
  const char* label;
  std::string bytes;
};
void PrintTo(const Contents& contents, std::ostream* to) {
  *to << contents.label;
}

class ValueFileTest : public FileUtilitiesTest, public testing::WithParamInterface<Contents> {};

TEST_P(ValueFileTest, IsReadAsAFileStreamReadsIt) {
  const std::string name = file("value", GetParam().bytes);
  for (const long def : {-7L, LONG_MAX}) {
    const Reference expected = referenceOf(name, "default", def);
    EXPECT_EQ(readStringFromFile(name, "default"), expected.word);
    EXPECT_THAT(lines(), IsEmpty());
    EXPECT_EQ(readIntegerFromFile(name, def), expected.number);
    EXPECT_THAT(lines(), ElementsAre(testing::StartsWith(expected.line)));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Files, ValueFileTest,
    testing::Values(
        Contents{"Empty", ""}, Contents{"Newline", "\n"}, Contents{"Blanks", " \t\v\f\r\n "},
        Contents{"Number", "42"}, Contents{"NumberAndNewline", "42\n"},
        Contents{"NumberInWhiteSpace", "\n\t 42\r\n\v\f "}, Contents{"Plus", "+42\n"},
        Contents{"Minus", "-42\n"}, Contents{"MinusZero", "-0"}, Contents{"LeadingZeros", "00042"},
        Contents{"SignAlone", "-"}, Contents{"SignAndNewline", "+\n"}, Contents{"TwoSigns", "--4"},
        Contents{"PlusMinus", "+-4"}, Contents{"SignBlankNumber", "- 4"}, Contents{"Word", "abc"},
        Contents{"WordAndNumber", "abc 42"}, Contents{"NumberAndLetter", "42abc"},
        Contents{"TwoNumbers", "42 7\n"}, Contents{"NumberAndMinus", "42-"},
        Contents{"Hexadecimal", "0x10"}, Contents{"Exponent", "1e5"}, Contents{"Fraction", "1.5"},
        Contents{"Grouped", "1,000"}, Contents{"ZeroByte", std::string("\0", 1)},
        Contents{"ZeroByteBehind", std::string("42\0", 3)},
        Contents{"ZeroByteInAWord", std::string("a\0b c", 5)}, Contents{"HighByte", "42\n\xFF"},
        Contents{"NoBreakSpace",
                 "\xA0"
                 "42"},
        Contents{"Utf8Word", "\xC3\xA9t\xC3\xA9 x"}, Contents{"Int32Max", "2147483647"},
        Contents{"Int32MaxPlusOne", "2147483648"}, Contents{"Int32Min", "-2147483648"},
        Contents{"Int32MinMinusOne", "-2147483649"}, Contents{"Int64Max", "9223372036854775807"},
        Contents{"Int64MaxPlusOne", "9223372036854775808"},
        Contents{"Int64Min", "-9223372036854775808"},
        Contents{"Int64MinMinusOne", "-9223372036854775809"},
        Contents{"FarTooLarge", std::string(700, '9') + " 5"},
        Contents{"ManyZeros", std::string(2000, '0') + "42\n"},
        Contents{"LongWord", std::string(5000, 'w') + " x"},
        Contents{"WhiteSpaceOfManyReads", std::string(3000, ' ') + "42" + std::string(3000, '\n')},
        Contents{"OffenderBehindManyReads", "42" + std::string(3000, '\n') + "x"},
        Contents{"NumberAcrossTwoReads", std::string(510, ' ') + "1234"},
        Contents{"ExactlyOneRead", std::string(510, ' ') + "42"}),
    [](const auto& row) { return std::string(row.param.label); });

TEST_F(FileUtilitiesTest, NumberIsReadAndTraced) {
  const std::string name = file("v", "42\n");
  EXPECT_EQ(readIntegerFromFile(name, 5), 42);
  EXPECT_THAT(lines(),
              ElementsAre("TRCE FileUtilities.cc: Read the value 42 from the file /tmp/v"));
}

TEST_F(FileUtilitiesTest, WhatStandsBehindANumberIsReported) {
  const std::string name = file("v", "42 7");
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Expected end of file in /tmp/v, got `'7''"));
  file("v", "42\n\x1B");
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Expected end of file in /tmp/v, got `'\\33''"));
  file("v", "42\xFF");
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(),
              ElementsAre("ERRO Logger: Expected end of file in /tmp/v, got `'\\37777777777''"));
}

TEST_F(FileUtilitiesTest, FileThatDoesNotBeginWithANumberIsTracedAsTheDefault) {
  for (const char* contents : {"", "\n", "abc", "abc 42", "-"}) {
    EXPECT_EQ(readIntegerFromFile(file("v", contents), 5), 5);
    EXPECT_THAT(lines(),
                ElementsAre("TRCE FileUtilities.cc: Read the value 5 from the file /tmp/v"));
  }
}

TEST_F(FileUtilitiesTest, NumberThatALongCannotHoldIsTracedAsTheDefault) {
  EXPECT_EQ(readIntegerFromFile(file("v", "99999999999999999999 x"), 5), 5);
  EXPECT_THAT(lines(), ElementsAre("TRCE FileUtilities.cc: Read the value 5 from the file /tmp/v"));
  EXPECT_EQ(readIntegerFromFile(file("v", std::to_string(LONG_MIN)), 5), LONG_MIN);
}

TEST_F(FileUtilitiesTest, TraceOfANumberNeedsLevelTwo) {
  writeLinesFromLevel(1);
  EXPECT_EQ(readIntegerFromFile(file("v", "42"), 5), 42);
  EXPECT_EQ(readIntegerFromFile(at("missing"), 5), 5);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(FileUtilitiesTest, FirstWordIsReadWithoutALine) {
  EXPECT_EQ(readStringFromFile(file("v", "  alpha beta"), "def"), "alpha");
  EXPECT_EQ(readStringFromFile(file("v", "alpha"), "def"), "alpha");
  EXPECT_EQ(readStringFromFile(file("v", " \n\t "), "def"), "def");
  EXPECT_EQ(readStringFromFile(file("v", ""), "def"), "def");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(FileUtilitiesTest, MissingFileIsTracedAndGivesTheDefault) {
  const std::string name = "/tmp/n o\"n\x80";
  const auto line = "TRCE FileUtilities.cc: No file /tmp/n o\"n\x80";
  EXPECT_EQ(readStringFromFile(name, "def"), "def");
  EXPECT_THAT(lines(), ElementsAre(line));
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(), ElementsAre(line));
  EXPECT_TRUE(readBoolFromFile(name, true));
  EXPECT_THAT(lines(), ElementsAre(line));
  EXPECT_FALSE(readBoolFromFile(name, false));
  EXPECT_THAT(lines(), ElementsAre(line));
}

TEST_F(FileUtilitiesTest, FileThatCannotBeOpenedIsReportedAndGivesTheDefault) {
  const std::string name = file("f") + "/v";
  const auto line = "ERRO Logger: Could not open file /tmp/f/v: Not a directory";
  EXPECT_EQ(readStringFromFile(name, "def"), "def");
  EXPECT_THAT(lines(), ElementsAre(line));
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(), ElementsAre(line));
  EXPECT_TRUE(readBoolFromFile(name, true));
  EXPECT_THAT(lines(), ElementsAre(line));
}

TEST_F(FileUtilitiesTest, UnreadableFileIsReported) {
  const std::string name = file("v", "42");
  ASSERT_EQ(chmod(name.c_str(), 0), 0);
  errorsOf([&] {
    becomeUser(1234);
    EXPECT_EQ(readIntegerFromFile(name, 5), 5);
    EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Could not open file /tmp/v: Permission denied"));
  });
}

TEST_F(FileUtilitiesTest, DirectoryIsAFileWithoutAValue) {
  EXPECT_EQ(readStringFromFile("/tmp", "def"), "def");
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(readIntegerFromFile("/tmp", 5), 5);
  EXPECT_THAT(lines(), ElementsAre("TRCE FileUtilities.cc: Read the value 5 from the file /tmp"));
}

TEST_F(FileUtilitiesTest, NumberAtWhoseEndReadingFailsIsNotTaken) {
  const std::string name = file("v");
  const auto readsOnce = [](const std::string& bytes) {
    calls.on_read = [bytes, first = true](void* room, size_t) mutable -> ssize_t {
      if (first) {
        first = false;
        bytes.copy(static_cast<char*>(room), bytes.size());
        return static_cast<ssize_t>(bytes.size());
      }
      errno = EIO;
      return -1;
    };
  };
  readsOnce("42");
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  readsOnce("42\n");  // the number's end was seen
  EXPECT_EQ(readIntegerFromFile(name, 5), 42);
  calls.on_read = nullptr;
}

TEST_F(FileUtilitiesTest, InterruptedReadsAreRepeated) {
  const std::string name = file("v");
  calls.on_read = [turn = 0](void* room, size_t) mutable -> ssize_t {
    switch (turn++) {
      case 1:
        *static_cast<char*>(room) = '4';
        return 1;
      case 3:
        *static_cast<char*>(room) = '2';
        return 1;
      case 5:
        return 0;
    }
    errno = EINTR;
    return -1;
  };
  EXPECT_EQ(readIntegerFromFile(name, 5), 42);
  calls.on_read = nullptr;
}

// A locale in which numbers are grouped by points.
struct Grouping : std::numpunct<char> {
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(FileUtilitiesTest, NumbersAreGroupedAsTheProgramsLocaleHasIt) {
  const std::locale old = std::locale::global(std::locale(std::locale(), new Grouping));
  const std::string name = file("v", "12.345\n");
  const Reference expected = referenceOf(name, "", 5);
  const long number = readIntegerFromFile(name, 5);
  std::locale::global(old);
  EXPECT_EQ(number, 12345);
  EXPECT_EQ(expected.number, 12345);
}

TEST_F(FileUtilitiesTest, FlagIsOneOrZero) {
  EXPECT_TRUE(readBoolFromFile(file("v", "1\n"), false));
  EXPECT_THAT(lines(), ElementsAre("TRCE FileUtilities.cc: Read the value 1 from the file /tmp/v"));
  EXPECT_FALSE(readBoolFromFile(file("v", "0\n"), true));
  EXPECT_TRUE(readBoolFromFile(file("v", "+01"), false));
}

TEST_F(FileUtilitiesTest, OtherNumbersAreNoFlagsAndGiveTheDefault) {
  for (const bool def : {false, true}) {
    EXPECT_EQ(readBoolFromFile(file("v", "2"), def), def);
    EXPECT_THAT(lines(), ElementsAre("TRCE FileUtilities.cc: Read the value 2 from the file /tmp/v",
                                     "ERRO Logger: Expected to find a 1 or 0 in /tmp/v, got 2"));
    EXPECT_EQ(readBoolFromFile(file("v", "-1"), def), def);
    EXPECT_THAT(lines(),
                ElementsAre("TRCE FileUtilities.cc: Read the value -1 from the file /tmp/v",
                            "ERRO Logger: Expected to find a 1 or 0 in /tmp/v, got -1"));
  }
}

TEST_F(FileUtilitiesTest, FlagFallsBackToTheDefaultWithTheNumbersLine) {
  EXPECT_TRUE(readBoolFromFile(file("v", "yes"), true));
  EXPECT_THAT(lines(), ElementsAre("TRCE FileUtilities.cc: Read the value 1 from the file /tmp/v"));
  EXPECT_FALSE(readBoolFromFile(file("v", "1 1"), false));
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Expected end of file in /tmp/v, got `'1''"));
}

TEST_F(FileUtilitiesTest, LargeSparseFileIsRead) {
  const std::string name = file("v", "alpha ");
  std::filesystem::resize_file(name, uintmax_t{3} << 30);
  EXPECT_EQ(readStringFromFile(name, "def"), "alpha");
  file("v", "42 x");
  std::filesystem::resize_file(name, uintmax_t{3} << 30);
  EXPECT_EQ(readIntegerFromFile(name, 5), 5);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Expected end of file in /tmp/v, got `'x''"));
}

TEST_F(FileUtilitiesTest, ReadersLeaveNoDescriptorOpen) {
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  ad_errorlog_printf("%s", "");  // the log makes its socket now
  const auto before = descriptors();
  readStringFromFile(file("v", "x"), "");
  readIntegerFromFile(at("v"), 1);
  readBoolFromFile(at("missing"), true);
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
