// The terminal file system over one directory per disk: disk creation and
// mount, confinement below the root, fopen-like modes, and the atomic commit
// of written files.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/fs.h"
#include "tests/support/test_env.h"

namespace {

namespace stdfs = std::filesystem;

int CreateDisk(const char* name) {
  FILE_FS_DiskDescriptor descriptor{};
  std::strncpy(descriptor.name, name, sizeof descriptor.name);
  const uint32_t blocks = 16;
  return FILE_FS_dskcreate(&descriptor, &blocks);
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

TEST(FsPaths, DisksAreCreatedOnceAndNothingReachesOutsideTheRoot) {
  gps::test::TempRoot root;
  EXPECT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  EXPECT_EQ(CreateDisk("DATA"), FILE_FS_DISK_EXISTS);
  EXPECT_EQ(FILE_FS_mount("/DATA", nullptr), FILE_FS_MOUNT_OK);
  EXPECT_EQ(FILE_FS_mount("/NOPE", nullptr), FILE_FS_MOUNT_FAILED);
  EXPECT_EQ(CreateDisk(".."), FILE_FS_DISK_ERROR) << "disk name climbing out of fs/";
  EXPECT_EQ(CreateDisk("A/B"), FILE_FS_DISK_ERROR) << "disk name with a slash";
  for (const char* path : {"DATA/f", "/DATA/../f", "/../f", "/DATA/./f", "", "/NODISK/f"})
    EXPECT_EQ(FILE_FS_open(path, "w+"), nullptr) << "path \"" << path << "\"";
}

TEST(FsOpen, ModesDecideCreationTruncationAndWhereAWriteAtOffsetZeroLands) {
  struct Case {
    const char* legend;
    const char* mode;
    const char* before;  // nullptr: no file
    const char* write;   // after seek(0)
    const char* after;   // "(none)": does not open, no file
  };
  const Case cases[] = {
      {"read of a missing file", "r", nullptr, "X", "(none)"},
      {"update of a missing file", "r+", nullptr, "X", "(none)"},
      {"write-update creates", "w+b", nullptr, "X", "X"},
      {"append creates", "a", nullptr, "X", "X"},
      {"read-only refuses writes", "r", "old", "X", "old"},
      {"update overwrites in place", "r+", "old", "X", "Xld"},
      {"write truncates", "w", "old", "X", "X"},
      {"write truncates even when nothing is written", "w", "old", "", ""},
      {"append ignores the seek", "a+", "old", "X", "oldX"},
  };
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  const std::string real = root / "fs/DATA/f";
  for (const Case& c : cases) {
    stdfs::remove(real);
    if (c.before) std::ofstream(real) << c.before;
    FILE_FS_HANDLE file = FILE_FS_open("/DATA/f", c.mode);
    EXPECT_EQ(file == nullptr, std::string(c.after) == "(none)") << c.legend;
    if (file) {
      FILE_FS_seek(file, 0, FILE_FS_SEEK_SET);
      FILE_FS_write(c.write, 1, std::strlen(c.write), file);
      EXPECT_EQ(FILE_FS_close(file), 0) << c.legend;
    }
    EXPECT_EQ(stdfs::exists(real) ? ReadFile(real) : "(none)", c.after) << c.legend;
  }
}

TEST(FsCommit, OldContentStaysUntilSyncOrCloseAndNoTemporaryRemains) {
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  const std::string real = root / "fs/DATA/f.bin";
  std::ofstream(real) << "old content!";

  FILE_FS_HANDLE file = FILE_FS_open("/DATA/f.bin", "r+");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(FILE_FS_write("NEW", 1, 3, file), 3u);
  EXPECT_EQ(ReadFile(real), "old content!") << "nothing reaches the disk before the commit";
  EXPECT_EQ(FILE_FS_sync(file), 0);
  EXPECT_EQ(ReadFile(real), "NEW content!");
  EXPECT_EQ(FILE_FS_seek(file, -1, FILE_FS_SEEK_SET), -1) << "before the start";
  ASSERT_EQ(FILE_FS_seek(file, 2, FILE_FS_SEEK_END), 0);
  ASSERT_EQ(FILE_FS_write("+", 1, 1, file), 1u);
  EXPECT_EQ(ReadFile(real), "NEW content!");
  EXPECT_EQ(FILE_FS_close(file), 0);
  EXPECT_EQ(ReadFile(real), std::string("NEW content!\0\0+", 15)) << "a gap after the end reads as zeros";
  EXPECT_EQ(std::distance(stdfs::directory_iterator(root / "fs/DATA"), {}), 1) << "no temporary file left beside it";
}

}  // namespace
