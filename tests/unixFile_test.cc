// Changing the file system, on real ones: two, full, read-only, and not permitted.
#include "velorin/unixFile"

#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/files_world.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class unixFileTest : public FilesWorld {
 protected:
  unixFileTest() { EXPECT_EQ(chdir("/tmp"), 0); }
  ~unixFileTest() override {
    EXPECT_EQ(chdir("/"), 0);
    for (const std::string& dir : covered_) EXPECT_EQ(umount2(dir.c_str(), MNT_DETACH), 0);
  }

  // Another file system, of the size given if any.
  void addFileSystem(const std::string& dir, const char* options = nullptr) {
    cover(dir);
    covered_.push_back(dir);
    EXPECT_EQ(chdir("/tmp"), 0);
    if (options != nullptr) {
      EXPECT_EQ(mount("none", dir.c_str(), nullptr, MS_REMOUNT, options), 0);
    }
  }
  static void makeReadOnly(const std::string& dir) {
    EXPECT_EQ(mount("none", dir.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }

  static bool exists(const std::string& name) {
    struct stat status;
    return lstat(name.c_str(), &status) == 0;
  }

  static std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  // What `body` throws; commands of the shell tell what is wrong on standard error, which is not
  // shown.
  template <class Body>
  std::string thrownInChild(Body body, std::vector<std::string>* logged = nullptr) {
    const ChildResult child = runInChild([&] {
      write("/tmp/thrown", thrownBy(body));
      std::string all;
      for (const std::string& line : lines()) all += line + "\n";
      write("/tmp/logged", all);
    });
    EXPECT_EQ(child.exitCode(), 0) << child;
    if (logged != nullptr) {
      std::ifstream file("/tmp/logged");
      for (std::string line; getline(file, line);) logged->push_back(line);
    }
    return read("/tmp/thrown");
  }

 private:
  std::vector<std::string> covered_;
};

// ---- Removing ----

TEST_F(unixFileTest, RemoveFileRemovesFilesLinksAndEmptyDirectories) {
  write("/tmp/f", "x");
  EXPECT_EQ(removeFile("/tmp/f"), 0);
  EXPECT_EQ(symlink("f", "/tmp/n e\"w\x80"), 0);
  EXPECT_EQ(removeFile("/tmp/n e\"w\x80"), 0);
  EXPECT_EQ(mkdir("/tmp/d", 0777), 0);
  EXPECT_EQ(removeFile("/tmp/d"), 0);
  EXPECT_FALSE(exists("/tmp/f") || exists("/tmp/n e\"w\x80") || exists("/tmp/d"));
  EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: removed `/tmp/f'",
                                   "TRCE unixFile.cc: removed `/tmp/n e\"w\x80'",
                                   "TRCE unixFile.cc: removed `/tmp/d'"));
}

TEST_F(unixFileTest, RemoveFileOfAMissingFileIsSilent) {
  EXPECT_EQ(removeFile("/tmp/missing"), 0);
  EXPECT_EQ(removeFile("/tmp/no/missing"), 0);
  EXPECT_EQ(removeFile(""), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(unixFileTest, RemoveFileReturnsZeroAfterAFailureToo) {
  EXPECT_EQ(mkdir("/tmp/d", 0755), 0);
  write("/tmp/d/f", "");
  EXPECT_EQ(removeFile("/tmp/d"), 0);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Could not remove `/tmp/d': Directory not empty"));
  EXPECT_EQ(removeFile("/tmp/d/f/x"), 0);
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Could not remove `/tmp/d/f/x': Not a directory"));
  errorsOf([this] {
    becomeUser(1234);
    EXPECT_EQ(removeFile("/tmp/d/f"), 0);
    EXPECT_THAT(lines(),
                ElementsAre("ERRO Logger: Could not remove `/tmp/d/f': Permission denied"));
  });
  EXPECT_TRUE(exists("/tmp/d/f"));
}

TEST_F(unixFileTest, RemoveFileOnAReadOnlyFileSystemIsAnErrorLine) {
  addFileSystem("/mnt/fixed");
  write("/mnt/fixed/f", "");
  makeReadOnly("/mnt/fixed");
  EXPECT_EQ(removeFile("/mnt/fixed/f"), 0);
  EXPECT_THAT(lines(),
              ElementsAre("ERRO Logger: Could not remove `/mnt/fixed/f': Read-only file system"));
}

TEST_F(unixFileTest, TracesNeedLevelTwo) {
  writeLinesFromLevel(1);
  write("/tmp/f", "x");
  moveFile("/tmp/f", "/tmp/g");
  copyFile("/tmp/g", "/tmp/h");
  removeFile("/tmp/h");
  EXPECT_THAT(lines(), IsEmpty());
}

// ---- Sizes ----

TEST_F(unixFileTest, SizeOfFileIsInBytes) {
  write("/tmp/f", "12345");
  EXPECT_EQ(sizeOfFile("/tmp/f"), 5);
  EXPECT_EQ(symlink("f", "/tmp/link"), 0);
  EXPECT_EQ(sizeOfFile("/tmp/link"), 5);
  write("/tmp/f", "");
  EXPECT_EQ(sizeOfFile("/tmp/f"), 0);
}

TEST_F(unixFileTest, SizeOfAMissingFileIsMinusOne) {
  EXPECT_EQ(sizeOfFile("/tmp/missing"), -1);
  EXPECT_EQ(sizeOfFile(""), -1);
  EXPECT_EQ(symlink("missing", "/tmp/link"), 0);
  EXPECT_EQ(sizeOfFile("/tmp/link"), -1);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(unixFileTest, SizeThatCannotBeHadThrows) {
  write("/tmp/f", "");
  EXPECT_EQ(thrownBy([] { (void)sizeOfFile("/tmp/f/x"); }),
            "0 \"Could not stat `/tmp/f/x': Not a directory\"");
  EXPECT_EQ(symlink("loop", "/tmp/loop"), 0);
  EXPECT_EQ(thrownBy([] { (void)sizeOfFile("/tmp/loop"); }),
            "0 \"Could not stat `/tmp/loop': Too many levels of symbolic links\"");
}

TEST_F(unixFileTest, LargestSizeOf32BitsIsKnown) {
  write("/tmp/sparse", "");
  std::filesystem::resize_file("/tmp/sparse", INT32_MAX);
  EXPECT_EQ(sizeOfFile("/tmp/sparse"), 2147483647);
}

TEST_F(unixFileTest, SizeThatALongCannotHoldThrows) {
  write("/tmp/sparse", "");
  std::filesystem::resize_file("/tmp/sparse", uintmax_t{1} << 31);
  const auto measure = [] { (void)sizeOfFile("/tmp/sparse"); };
  if (sizeof(long) == 4) {
    EXPECT_EQ(thrownBy(measure),
              "0 \"Could not stat `/tmp/sparse': Value too large for defined data type\"");
  } else {
    EXPECT_EQ(thrownBy(measure), "nothing");
    EXPECT_EQ(static_cast<long long>(sizeOfFile("/tmp/sparse")), 2147483648LL);
  }
}

// ---- Renaming ----

TEST_F(unixFileTest, RenameFileReplacesTheDestinationWithoutALine) {
  write("/tmp/a b", "new");
  write("/tmp/to", "old");
  renameFile("/tmp/a b", "/tmp/to");
  EXPECT_EQ(read("/tmp/to"), "new");
  EXPECT_FALSE(exists("/tmp/a b"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(unixFileTest, RenameFileThatFailsThrows) {
  EXPECT_EQ(thrownBy([] { renameFile("/tmp/missing", "/tmp/to"); }),
            "0 \"Could not rename `/tmp/missing' to `/tmp/to': No such file or directory\"");
  addFileSystem("/mnt/two");
  write("/tmp/f", "");
  EXPECT_EQ(thrownBy([] { renameFile("/tmp/f", "/mnt/two/f"); }),
            "0 \"Could not rename `/tmp/f' to `/mnt/two/f': Invalid cross-device link\"");
  EXPECT_TRUE(exists("/tmp/f"));
}

// ---- Making directories ----

TEST_F(unixFileTest, MakeDirectoryPathMakesAllThatIsMissing) {
  EXPECT_EQ(mkdir("/tmp/x", 0777), 0);
  makeDirectoryPath("/tmp/x/y/z");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/x/y/z"));
  makeDirectoryPath("rel/a b/\"c\x80");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/rel/a b/\"c\x80"));
  makeDirectoryPath("one");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/one"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(unixFileTest, MakeDirectoryPathOfADirectoryDoesNothing) {
  EXPECT_EQ(symlink(".", "/tmp/link"), 0);
  const auto before = namesIn("/tmp");
  makeDirectoryPath("/tmp");
  makeDirectoryPath("/");
  makeDirectoryPath("/tmp/link");
  EXPECT_EQ(namesIn("/tmp"), before);
}

TEST_F(unixFileTest, MakeDirectoryPathTakesDoubledAndTrailingSlashes) {
  makeDirectoryPath("//tmp//p///q//");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/p/q"));
  EXPECT_THAT(namesIn("/tmp/p"), ElementsAre("q"));
}

TEST_F(unixFileTest, MakeDirectoryPathHeedsTheUmask) {
  const mode_t old = umask(027);
  makeDirectoryPath("/tmp/p/q");
  umask(old);
  for (const char* dir : {"/tmp/p", "/tmp/p/q"}) {
    struct stat status;
    ASSERT_EQ(stat(dir, &status), 0);
    EXPECT_EQ(status.st_mode, static_cast<mode_t>(S_IFDIR | 0750));
  }
}

TEST_F(unixFileTest, MakeDirectoryPathPassesOverAFileAboveAndFailsBelowIt) {
  EXPECT_EQ(mkdir("/tmp/x", 0777), 0);
  write("/tmp/x/y", "");
  EXPECT_EQ(thrownBy([] { makeDirectoryPath("/tmp/x/y/z"); }),
            "0 \"Trouble creating directory `/tmp/x/y/z': Not a directory\"");
}

TEST_F(unixFileTest, MakeDirectoryPathTakesAFileOfThatNameForTheDirectory) {
  write("/tmp/f", "");
  makeDirectoryPath("/tmp/f");
  EXPECT_TRUE(std::filesystem::is_regular_file("/tmp/f"));
  EXPECT_EQ(symlink("nothing", "/tmp/dangling"), 0);
  makeDirectoryPath("/tmp/dangling");
  EXPECT_FALSE(exists("/tmp/nothing"));
}

TEST_F(unixFileTest, MakeDirectoryPathAcceptsAParentThatExistsWhenItIsMade) {
  // What stat does not see and mkdir finds there.
  EXPECT_EQ(symlink("nothing", "/tmp/dangling"), 0);
  EXPECT_EQ(thrownBy([] { makeDirectoryPath("/tmp/dangling/d"); }),
            "0 \"Trouble creating directory `/tmp/dangling/d': No such file or directory\"");
}

TEST_F(unixFileTest, MakeDirectoryPathThatCannotMakeAParentThrows) {
  write("/tmp/f", "");
  EXPECT_EQ(
      thrownBy([] { makeDirectoryPath("/tmp/f/x/y"); }),
      "0 \"Trouble creating subdirectory `/tmp/f/x' of target `/tmp/f/x/y': Not a directory\"");
  EXPECT_EQ(mkdir("/tmp/d", 0755), 0);
  errorsOf([] {
    becomeUser(1234);
    EXPECT_EQ(
        thrownBy([] { makeDirectoryPath("/tmp/d/x/y"); }),
        "0 \"Trouble creating subdirectory `/tmp/d/x' of target `/tmp/d/x/y': Permission denied\"");
  });
}

TEST_F(unixFileTest, MakeDirectoryPathWithATrailingSlashFailsForItsLastPartAsForAParent) {
  write("/tmp/f", "");
  EXPECT_EQ(
      thrownBy([] { makeDirectoryPath("/tmp/f/x/"); }),
      "0 \"Trouble creating subdirectory `/tmp/f/x' of target `/tmp/f/x/': Not a directory\"");
}

TEST_F(unixFileTest, MakeDirectoryPathOfNothingThrows) {
  EXPECT_EQ(thrownBy([] { makeDirectoryPath(""); }),
            "0 \"Trouble creating directory `': No such file or directory\"");
}

TEST_F(unixFileTest, MakeDirectoryPathKeepsWhatItMadeBeforeAFailure) {
  const std::string parent = "/tmp/made/";
  const std::string name(NAME_MAX + 1, 'n');
  EXPECT_EQ(thrownBy([&] { makeDirectoryPath(parent + name); }),
            "0 \"Trouble creating directory `" + parent + name + "': File name too long\"");
  EXPECT_TRUE(std::filesystem::is_directory("/tmp/made"));
}

TEST_F(unixFileTest, MakeDirectoryPathOnAReadOnlyFileSystemThrows) {
  addFileSystem("/mnt/fixed");
  makeReadOnly("/mnt/fixed");
  EXPECT_EQ(thrownBy([] { makeDirectoryPath("/mnt/fixed/d"); }),
            "0 \"Trouble creating directory `/mnt/fixed/d': Read-only file system\"");
}

// ---- Moving ----

TEST_F(unixFileTest, MoveFileRenamesOnOneFileSystem) {
  write("/tmp/a\"b", "contents");  // which the command could not
  moveFile("/tmp/a\"b", "/tmp/to");
  EXPECT_EQ(read("/tmp/to"), "contents");
  EXPECT_FALSE(exists("/tmp/a\"b"));
  EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: Moved `/tmp/a\"b' to `/tmp/to'"));
}

TEST_F(unixFileTest, MoveFileFallsBackToTheCommandBetweenFileSystems) {
  addFileSystem("/mnt/two");
  write("/tmp/-a b;'*\x80", "contents");
  write("/mnt/two/to it", "old");
  EXPECT_EQ(chmod("/mnt/two/to it", 0444), 0);
  moveFile("-a b;'*\x80", "/mnt/two/to it");
  EXPECT_EQ(read("/mnt/two/to it"), "contents");
  EXPECT_FALSE(exists("/tmp/-a b;'*\x80"));
  EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: Moved `-a b;'*\x80' to `/mnt/two/to it'"));
}

TEST_F(unixFileTest, MoveFileMovesDirectoriesBetweenFileSystems) {
  addFileSystem("/mnt/two");
  EXPECT_EQ(mkdir("/tmp/d", 0777), 0);
  write("/tmp/d/f", "x");
  moveFile("/tmp/d", "/mnt/two/d");
  EXPECT_EQ(read("/mnt/two/d/f"), "x");
  EXPECT_FALSE(exists("/tmp/d"));
}

TEST_F(unixFileTest, MoveFileDoesNotEscapeADoubleQuote) {
  addFileSystem("/mnt/two");
  write("/tmp/a\"b", "contents");
  std::vector<std::string> logged;
  EXPECT_EQ(thrownInChild([] { moveFile("/tmp/a\"b", "/mnt/two/to"); }, &logged),
            "0 \"Command failed: 512, Success, /bin/mv -f -- \"/tmp/a\"b\" \"/mnt/two/to\"\"");
  EXPECT_THAT(logged, IsEmpty());
  EXPECT_EQ(read("/tmp/a\"b"), "contents");
}

TEST_F(unixFileTest, MoveFileLetsTheShellExpandTheNames) {
  addFileSystem("/mnt/two");
  write("/tmp/a$(echo b)`echo c`\\$", "named");
  write("/tmp/abc$", "expanded");
  moveFile("/tmp/a$(echo b)`echo c`\\$", "/mnt/two/to");
  EXPECT_EQ(read("/mnt/two/to"), "expanded");
  EXPECT_EQ(read("/tmp/a$(echo b)`echo c`\\$"), "named");
}

TEST_F(unixFileTest, MoveFileThatFailsThrowsTheStatusAndTheCommand) {
  EXPECT_EQ(thrownInChild([] { moveFile("/tmp/missing", "/tmp/to"); }),
            "0 \"Command failed: 256, Success, /bin/mv -f -- \"/tmp/missing\" \"/tmp/to\"\"");
}

TEST_F(unixFileTest, MoveFileToAFullFileSystemThrowsAndKeepsTheFile) {
  addFileSystem("/mnt/small", "size=4k");
  write("/tmp/f", std::string(100000, 'x'));
  EXPECT_EQ(thrownInChild([] { moveFile("/tmp/f", "/mnt/small/f"); }),
            "0 \"Command failed: 256, Success, /bin/mv -f -- \"/tmp/f\" \"/mnt/small/f\"\"");
  EXPECT_EQ(sizeOfFile("/tmp/f"), 100000);
}

// As long as it lives the process, of an unprivileged user, cannot start others.
class NoProcesses {
 public:
  NoProcesses() {
    EXPECT_EQ(getrlimit(RLIMIT_NPROC, &before_), 0);
    const rlimit none = {0, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
  }
  ~NoProcesses() { EXPECT_EQ(setrlimit(RLIMIT_NPROC, &before_), 0); }
  NoProcesses(const NoProcesses&) = delete;
  NoProcesses& operator=(const NoProcesses&) = delete;

 private:
  rlimit before_;
};

TEST_F(unixFileTest, CommandThatCannotBeStartedThrowsTheSystemsError) {
  EXPECT_EQ(chmod("/tmp", 0777), 0);
  const auto body = [] {
    becomeUser(1234);
    const NoProcesses none;
    moveFile("/tmp/missing", "/tmp/to");
  };
  EXPECT_EQ(thrownInChild(body),
            "0 \"Command failed: 32512, Resource temporarily unavailable, "
            "/bin/mv -f -- \"/tmp/missing\" \"/tmp/to\"\"");
}

// ---- Copying ----

TEST_F(unixFileTest, CopyFileReplacesTheDestinationAndLeavesNoTemporary) {
  write("/tmp/from", "new");
  write("/tmp/to", "old");
  const auto names = namesIn("/tmp");
  struct stat before, after;
  ASSERT_EQ(stat("/tmp/to", &before), 0);
  copyFile("/tmp/from", "/tmp/to");
  ASSERT_EQ(stat("/tmp/to", &after), 0);
  EXPECT_EQ(read("/tmp/to"), "new");
  EXPECT_NE(before.st_ino, after.st_ino) << "the old file was written to";
  EXPECT_EQ(namesIn("/tmp"), names);
  EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: copyFile: /bin/cp -f -- /tmp/from /tmp/to~",
                                   "TRCE unixFile.cc: Copied `/tmp/from' to `/tmp/to~'"));
}

TEST_F(unixFileTest, CopyFileCopiesToAnotherFileSystem) {
  addFileSystem("/mnt/two");
  write("/tmp/-from\x80", "contents");
  copyFile("-from\x80", "/mnt/two/to");
  EXPECT_EQ(read("/mnt/two/to"), "contents");
  EXPECT_THAT(namesIn("/mnt/two"), ElementsAre("to"));
}

TEST_F(unixFileTest, CopyFileDoesNotQuoteNames) {
  write("/tmp/a b", "contents");
  std::vector<std::string> logged;
  EXPECT_EQ(thrownInChild([] { copyFile("/tmp/a b", "/tmp/to"); }, &logged),
            "0 \"Command failed: 256, Success, /bin/cp -f -- /tmp/a b /tmp/to~\"");
  EXPECT_THAT(logged, ElementsAre("TRCE unixFile.cc: copyFile: /bin/cp -f -- /tmp/a b /tmp/to~"));
  write("/tmp/one", "1");
  copyFile("/tmp/o?e", "/tmp/to");
  EXPECT_EQ(read("/tmp/to"), "1");
}

TEST_F(unixFileTest, CopyFileThatFailsLeavesTheDestinationAlone) {
  write("/tmp/to", "old");
  EXPECT_EQ(thrownInChild([] { copyFile("/tmp/missing", "/tmp/to"); }),
            "0 \"Command failed: 256, Success, /bin/cp -f -- /tmp/missing /tmp/to~\"");
  EXPECT_EQ(read("/tmp/to"), "old");
}

TEST_F(unixFileTest, CopyFileToAFullFileSystemKeepsTheOldFile) {
  addFileSystem("/mnt/small", "size=8k");
  write("/mnt/small/to", "old");
  write("/tmp/f", std::string(100000, 'x'));
  EXPECT_EQ(thrownInChild([] { copyFile("/tmp/f", "/mnt/small/to"); }),
            "0 \"Command failed: 256, Success, /bin/cp -f -- /tmp/f /mnt/small/to~\"");
  EXPECT_EQ(read("/mnt/small/to"), "old");
}

TEST_F(unixFileTest, CopyFileKeepsTheTemporaryWhenItCannotBeRenamed) {
  write("/tmp/f", "x");
  EXPECT_EQ(mkdir("/tmp/to", 0777), 0);
  EXPECT_EQ(thrownBy([] { copyFile("/tmp/f", "/tmp/to"); }),
            "0 \"Could not rename `/tmp/to~' to `/tmp/to': Is a directory\"");
  EXPECT_EQ(read("/tmp/to~"), "x");
  EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: copyFile: /bin/cp -f -- /tmp/f /tmp/to~",
                                   "TRCE unixFile.cc: Copied `/tmp/f' to `/tmp/to~'"));
}

// ---- Linking ----

TEST_F(unixFileTest, SymbolicLinkHoldsTheTextGiven) {
  symbolicLink("any \"text\x80", "/tmp/link");
  EXPECT_EQ(std::filesystem::read_symlink("/tmp/link"), "any \"text\x80");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(unixFileTest, SymbolicLinkReplacesAFileALinkAndAnEmptyDirectory) {
  write("/tmp/a", "x");
  EXPECT_EQ(symlink("old", "/tmp/b"), 0);
  EXPECT_EQ(mkdir("/tmp/c", 0777), 0);
  for (const char* to : {"/tmp/a", "/tmp/b", "/tmp/c"}) {
    symbolicLink("target", to);
    EXPECT_EQ(std::filesystem::read_symlink(to), "target");
    EXPECT_THAT(lines(), ElementsAre("TRCE unixFile.cc: removed `" + std::string(to) + "'"));
  }
}

TEST_F(unixFileTest, SymbolicLinkFailsTwiceOnADirectoryThatIsNotEmpty) {
  EXPECT_EQ(mkdir("/tmp/d", 0777), 0);
  write("/tmp/d/f", "");
  EXPECT_EQ(thrownBy([] { symbolicLink("target", "/tmp/d"); }),
            "0 \"symlink target /tmp/d: File exists\"");
  EXPECT_THAT(lines(), ElementsAre("ERRO Logger: Could not remove `/tmp/d': Directory not empty"));
}

TEST_F(unixFileTest, SymbolicLinkThatCannotBeMadeThrowsAtOnce) {
  EXPECT_EQ(thrownBy([] { symbolicLink("target", "/tmp/no/link"); }),
            "0 \"symlink target /tmp/no/link: No such file or directory\"");
  EXPECT_EQ(thrownBy([] { symbolicLink("", "/tmp/link"); }),
            "0 \"symlink  /tmp/link: No such file or directory\"");
  EXPECT_THAT(lines(), IsEmpty());
}

}  // namespace
