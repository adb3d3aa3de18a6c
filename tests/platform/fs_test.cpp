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

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

TEST(FsDisk, IsCreatedOnceAndMountsOnlyWhenPresent) {
  gps::test::TempRoot root;
  EXPECT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  EXPECT_TRUE(stdfs::is_directory(root / "fs/DATA"));
  EXPECT_EQ(CreateDisk("DATA"), FILE_FS_DISK_EXISTS);
  EXPECT_EQ(FILE_FS_mount("/DATA", nullptr), FILE_FS_MOUNT_OK);
  EXPECT_EQ(FILE_FS_mount("/NOPE", nullptr), FILE_FS_MOUNT_FAILED);
}

TEST(FsPaths, NothingReachesOutsideTheRoot) {
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  EXPECT_EQ(CreateDisk(".."), FILE_FS_DISK_ERROR) << "disk name climbing out of fs/";
  EXPECT_EQ(CreateDisk("A/B"), FILE_FS_DISK_ERROR) << "disk name with a slash";
  EXPECT_EQ(FILE_FS_mount("/DATA/..", nullptr), FILE_FS_MOUNT_FAILED);
  const char* refused[] = {"DATA/f", "/DATA/../f", "/../f", "/DATA/./f", ""};
  for (const char* path : refused) {
    FILE_FS_HANDLE file = FILE_FS_open(path, "w+");
    EXPECT_EQ(file, nullptr) << "path \"" << path << "\"";
    if (file) FILE_FS_close(file);
  }
  EXPECT_FALSE(stdfs::exists(root / "fs/f"));
  EXPECT_FALSE(stdfs::exists(root / "f"));
}

TEST(FsOpen, ModesDecideCreationTruncationAndWhereAWriteAtOffsetZeroLands) {
  struct Case {
    const char* legend;
    const char* mode;
    const char* before;  // nullptr: no file
    const char* after;   // after seek(0) and write "X"; nullptr: does not open
  };
  const Case cases[] = {
      {"read of a missing file", "r", nullptr, nullptr},
      {"update of a missing file", "r+", nullptr, nullptr},
      {"write-update creates", "w+b", nullptr, "X"},
      {"append creates", "a", nullptr, "X"},
      {"read-only refuses writes", "r", "old", "old"},
      {"update overwrites in place", "r+", "old", "Xld"},
      {"write truncates", "w", "old", "X"},
      {"append ignores the seek", "a+", "old", "oldX"},
  };
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  EXPECT_EQ(FILE_FS_open("/NODISK/f", "w+"), nullptr) << "missing disk";
  const std::string real = root / "fs/DATA/f";
  for (const Case& c : cases) {
    stdfs::remove(real);
    if (c.before) WriteFile(real, c.before);
    FILE_FS_HANDLE file = FILE_FS_open("/DATA/f", c.mode);
    EXPECT_EQ(file != nullptr, c.after != nullptr) << c.legend;
    if (!file) {
      EXPECT_FALSE(stdfs::exists(real)) << c.legend;
      continue;
    }
    EXPECT_EQ(FILE_FS_seek(file, 0, FILE_FS_SEEK_SET), 0) << c.legend;
    FILE_FS_write("X", 1, 1, file);
    EXPECT_EQ(FILE_FS_close(file), 0) << c.legend;
    EXPECT_EQ(ReadFile(real), c.after) << c.legend;
  }
  WriteFile(real, "old");
  FILE_FS_HANDLE file = FILE_FS_open("/DATA/f", "w");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(FILE_FS_close(file), 0);
  EXPECT_EQ(ReadFile(real), "") << "\"w\" truncates even when nothing is written";
}

TEST(FsCommit, OldContentStaysUntilSyncOrCloseAndNoTemporaryRemains) {
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  const std::string real = root / "fs/DATA/f.bin";
  WriteFile(real, "old content!");

  FILE_FS_HANDLE file = FILE_FS_open("/DATA/f.bin", "r+");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(FILE_FS_write("NEW", 1, 3, file), 3u);
  EXPECT_EQ(ReadFile(real), "old content!") << "nothing reaches the disk before the commit";
  EXPECT_EQ(FILE_FS_sync(file), 0);
  EXPECT_EQ(ReadFile(real), "NEW content!");
  ASSERT_EQ(FILE_FS_seek(file, 0, FILE_FS_SEEK_END), 0);
  ASSERT_EQ(FILE_FS_write("+", 1, 1, file), 1u);
  EXPECT_EQ(ReadFile(real), "NEW content!");
  EXPECT_EQ(FILE_FS_close(file), 0);
  EXPECT_EQ(ReadFile(real), "NEW content!+");

  std::vector<std::string> entries;
  for (const auto& entry : stdfs::directory_iterator(root / "fs/DATA")) entries.push_back(entry.path().filename());
  EXPECT_EQ(entries, std::vector<std::string>{"f.bin"});
}

TEST(FsSeek, WritingPastTheEndZeroFillsTheGap) {
  gps::test::TempRoot root;
  ASSERT_EQ(CreateDisk("DATA"), FILE_FS_DISK_CREATED);
  FILE_FS_HANDLE file = FILE_FS_open("/DATA/g.bin", "w+");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(FILE_FS_write("ab", 1, 2, file), 2u);
  EXPECT_EQ(FILE_FS_seek(file, -1, FILE_FS_SEEK_SET), -1) << "before the start";
  ASSERT_EQ(FILE_FS_seek(file, 5, FILE_FS_SEEK_SET), 0);
  EXPECT_EQ(FILE_FS_tell(file), 5);
  ASSERT_EQ(FILE_FS_write("cd", 1, 2, file), 2u);
  EXPECT_EQ(FILE_FS_length(file), 7);
  ASSERT_EQ(FILE_FS_close(file), 0);

  EXPECT_EQ(ReadFile(root / "fs/DATA/g.bin"), std::string("ab\0\0\0cd", 7));
}

TEST(FsArea, FreeSizeIsPositive) {
  gps::test::TempRoot root;
  EXPECT_GT(FILE_FS_AreaGetFreeSize(1), 0) << "a large disk must not wrap to a negative size";
}

}  // namespace
