// Windows volumes read without Windows: partition tables from bytes in memory, and NTFS
// images that mkntfs makes at test time (skipped when it is missing), read back through the
// same calls as a mounted directory.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/image/partition_table.h"
#include "platform/image/volume.h"
#include "platform/recorded/record_error.h"

namespace fs = std::filesystem;
using platform::image::Crc32;
using platform::image::PartitionTable;
using platform::image::ReadPartitionTable;

namespace {

constexpr std::uint64_t kMiB = 1 << 20;

void Put32(std::string& bytes, std::size_t at, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
}

void Put64(std::string& bytes, std::size_t at, std::uint64_t value) {
  Put32(bytes, at, static_cast<std::uint32_t>(value));
  Put32(bytes, at + 4, static_cast<std::uint32_t>(value >> 32));
}

std::uint32_t CrcOf(const std::string& bytes, std::size_t at, std::size_t size) {
  return Crc32(reinterpret_cast<const std::uint8_t*>(bytes.data()) + at, size);
}

// An MBR entry (or an EBR's) of `type` at sector `start`, `sectors` long, in the sector at
// byte `sector` of `disk`.
void MbrEntry(std::string& disk, std::uint64_t sector, int slot, int type, std::uint32_t start,
              std::uint32_t sectors) {
  const std::size_t at = sector + 446 + 16 * slot;
  disk[at + 4] = static_cast<char>(type);
  Put32(disk, at + 8, start);
  Put32(disk, at + 12, sectors);
  disk[sector + 510] = '\x55';
  disk[sector + 511] = '\xAA';
}

struct GptPart {
  std::uint64_t first, last;  // sectors
};

// A protective MBR and primary and backup GPTs (512-byte sectors) listing `parts`.
void WriteGpt(std::string& disk, const std::vector<GptPart>& parts) {
  const std::uint64_t lastLba = disk.size() / 512 - 1;
  MbrEntry(disk, 0, 0, 0xEE, 1, static_cast<std::uint32_t>(std::min<std::uint64_t>(lastLba, ~0u)));
  std::string entries(128 * 128, '\0');
  for (std::size_t i = 0; i < parts.size(); ++i) {
    entries[i * 128] = '\xA2';  // any type GUID that is not zero
    Put64(entries, i * 128 + 32, parts[i].first);
    Put64(entries, i * 128 + 40, parts[i].last);
  }
  for (const auto& [headerLba, entriesLba] :
       {std::pair<std::uint64_t, std::uint64_t>{1, 2}, {lastLba, lastLba - 32}}) {
    disk.replace(entriesLba * 512, entries.size(), entries);
    std::string header(92, '\0');
    header.replace(0, 8, "EFI PART");
    Put32(header, 8, 0x10000);
    Put32(header, 12, 92);
    Put64(header, 24, headerLba);
    Put64(header, 72, entriesLba);
    Put32(header, 80, 128);
    Put32(header, 84, 128);
    Put32(header, 88, CrcOf(entries, 0, entries.size()));
    Put32(header, 16, CrcOf(header, 0, header.size()));
    disk.replace(headerLba * 512, header.size(), header);
  }
}

PartitionTable TableOf(const std::string& disk) {
  return ReadPartitionTable(
      [&disk](std::uint64_t offset, std::size_t count, std::uint8_t* out) {
        if (offset > disk.size() || count > disk.size() - offset) return false;
        std::memcpy(out, disk.data() + offset, count);
        return true;
      },
      disk.size());
}

std::string Layout(const PartitionTable& table) {
  std::string text = table.scheme + ":";
  for (const auto& p : table.partitions) {
    text += " " + std::to_string(p.number) + "@" + std::to_string(p.offset / 512) + "+" +
            std::to_string(p.length / 512);
  }
  return text;
}

bool Mentions(const std::vector<std::string>& problems, const std::string& part) {
  return std::any_of(problems.begin(), problems.end(),
                     [&](const std::string& p) { return p.find(part) != std::string::npos; });
}

TEST(ImagePartitionTable, Crc32IsTheZlibOne) {
  const std::string check = "123456789";
  EXPECT_EQ(CrcOf(check, 0, check.size()), 0xCBF43926u);
}

TEST(ImagePartitionTable, Layouts) {
  struct Case {
    const char* name;
    std::size_t sectors;
    void (*build)(std::string&);
    const char* layout;
    const char* problem;  // "" for none
  };
  const Case cases[] = {
      {"primary and logical", 4096,
       [](std::string& d) {
         MbrEntry(d, 0, 0, 0x07, 64, 100);
         MbrEntry(d, 0, 1, 0x0F, 1000, 3000);
         MbrEntry(d, 1000 * 512, 0, 0x07, 10, 200);   // logical 5 at 1010
         MbrEntry(d, 1000 * 512, 1, 0x05, 500, 300);  // next EBR at 1500
         MbrEntry(d, 1500 * 512, 0, 0x07, 10, 100);   // logical 6 at 1510
       },
       "MBR: 1@64+100 5@1010+200 6@1510+100", ""},
      {"looping logical chain", 4096,
       [](std::string& d) {
         MbrEntry(d, 0, 0, 0x05, 1000, 3000);
         MbrEntry(d, 1000 * 512, 0, 0x07, 10, 20);
         MbrEntry(d, 1000 * 512, 1, 0x05, 500, 300);
         MbrEntry(d, 1500 * 512, 0, 0x07, 10, 20);
         MbrEntry(d, 1500 * 512, 1, 0x05, 0, 300);  // back to the first EBR
       },
       "MBR: 5@1010+20 6@1510+20", "loops"},
      {"EBR outside its extended partition", 4096,
       [](std::string& d) {
         MbrEntry(d, 0, 0, 0x05, 1000, 100);
         MbrEntry(d, 1000 * 512, 0, 0x07, 10, 20);
         MbrEntry(d, 1000 * 512, 1, 0x05, 2000, 300);
       },
       "MBR: 5@1010+20", "cannot be read"},
      {"partition past the end", 4096,
       [](std::string& d) {
         MbrEntry(d, 0, 0, 0x07, 64, 100);
         MbrEntry(d, 0, 1, 0x07, 9000, 100);
       },
       "MBR: 1@64+100", "starts past the image's end"},
      {"partition running over the end", 4096,
       [](std::string& d) { MbrEntry(d, 0, 0, 0x07, 4000, 1000); }, "MBR: 1@4000+96",
       "ends past the image's end"},
      {"GPT", 4096,
       [](std::string& d) {
         WriteGpt(d, {{64, 163}, {2048, 3000}});
       },
       "GPT: 1@64+100 2@2048+953", ""},
      {"GPT with a damaged primary header", 4096,
       [](std::string& d) {
         WriteGpt(d, {{64, 163}});
         d[512 + 40] ^= 1;
       },
       "GPT: 1@64+100", "checksum"},
      {"GPT with damaged entries in both copies", 4096,
       [](std::string& d) {
         WriteGpt(d, {{64, 163}});
         d[2 * 512 + 32] ^= 1;
         d[(4095 - 32) * 512 + 32] ^= 1;
       },
       "MBR:", "without a readable GPT"},
      {"GPT entry outside the disk", 4096,
       [](std::string& d) {
         WriteGpt(d, {{64, 163}, {5000, 6000}, {200, 100}});
       },
       "GPT: 1@64+100", "lies outside the image"},
      {"bare NTFS", 64,
       [](std::string& d) {
         d.replace(3, 8, "NTFS    ");
         d[11] = 0;
         d[12] = 2;
         d[13] = 8;
       },
       "none: 0@0+64", ""},
      {"no table", 64, [](std::string&) {}, ":", "neither"},
      {"shorter than a sector", 0, [](std::string&) {}, ":", "shorter"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string disk(c.sectors * 512, '\0');
    c.build(disk);
    const PartitionTable table = TableOf(disk);
    EXPECT_EQ(Layout(table), c.layout);
    if (*c.problem == '\0') {
      EXPECT_TRUE(table.problems.empty()) << table.problems.front();
    } else {
      EXPECT_TRUE(Mentions(table.problems, c.problem)) << table.problems.size();
    }
  }
}

// ---- volumes ----

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void WriteAll(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), bytes.size());
}

std::string FindMkntfs() {
  for (const char* dir : {"/usr/sbin", "/sbin", "/usr/bin", "/bin"}) {
    const std::string path = std::string(dir) + "/mkntfs";
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return {};
}

const std::string kSoftware = "hive bytes";
const std::size_t kBigSize = 100000;

// What every Windows volume of these tests holds. "Übung" checks that case is folded beyond
// ASCII.
struct Entry {
  char kind;  // d directory, f file with text, r file of `text` bytes
  std::string path;
  std::string text;
};
const std::vector<Entry> kWindowsTree = {
    {'d', "Windows", ""},
    {'d', "Windows/System32", ""},
    {'d', "Windows/System32/config", ""},
    {'f', "Windows/System32/config/SOFTWARE", kSoftware},
    {'r', "Windows/big.bin", std::to_string(kBigSize)},
    {'d',
     "Windows/\xC3\x9C"
     "bung",
     ""},
};
const std::vector<Entry> kDataTree = {{'d', "Data", ""}, {'f', "Data/readme.txt", "data"}};

class ImageVolumeTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = fs::temp_directory_path() / ("image_volume_test." + std::to_string(getpid()));
    fs::create_directories(dir_);
    mkntfs_ = FindMkntfs();
    if (mkntfs_.empty()) return;
    windows_ = MakeNtfs("windows.ntfs", kWindowsTree);
    data_ = MakeNtfs("data.ntfs", kDataTree);
  }

  static void TearDownTestSuite() {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  void SetUp() override {
    if (mkntfs_.empty()) GTEST_SKIP() << "mkntfs is not installed";
    ASSERT_FALSE(windows_.empty());
    ASSERT_FALSE(data_.empty());
  }

  // A 4 MiB NTFS file system holding `tree`, as bytes; empty when a tool failed.
  static std::string MakeNtfs(const std::string& name, const std::vector<Entry>& tree) {
    const fs::path file = dir_ / name;
    fs::resize_file(WriteEmpty(file), 4 * kMiB);
    std::string command = mkntfs_ + " -F -Q -q " + file.string() + " >/dev/null 2>&1 && " +
                          IA_NTFS_TREE + " " + file.string();
    for (const Entry& e : tree)
      command += std::string(" ") + e.kind + " '" + e.path + "' " +
                 (e.kind == 'd' ? "" : "'" + e.text + "'");
    if (std::system(command.c_str()) != 0) return {};
    return ReadAll(file);
  }

  static fs::path WriteEmpty(const fs::path& file) {
    WriteAll(file, "");
    return file;
  }

  // A disk of `sectors` with `windows_` and `data_` put at the given sectors (0: left out).
  static fs::path Disk(const std::string& name, std::size_t sectors, std::uint64_t dataAt,
                       std::uint64_t windowsAt, void (*table)(std::string&)) {
    std::string disk(sectors * 512, '\0');
    if (dataAt != 0) disk.replace(dataAt * 512, data_.size(), data_);
    if (windowsAt != 0) disk.replace(windowsAt * 512, windows_.size(), windows_);
    table(disk);
    const fs::path file = dir_ / name;
    WriteAll(file, disk);
    return file;
  }

  static fs::path Directory() {
    const fs::path root = dir_ / "mounted";
    if (fs::exists(root)) return root;
    for (const Entry& e : kWindowsTree) {
      if (e.kind == 'd') fs::create_directories(root / fs::u8path(e.path));
      if (e.kind == 'f') WriteAll(root / e.path, e.text);
      if (e.kind == 'r') WriteAll(root / e.path, std::string(kBigSize, 'x'));
    }
    fs::create_directories(dir_ / "outside");
    WriteAll(dir_ / "outside" / "secret", "secret");
    fs::create_directory_symlink(dir_ / "outside", root / "Windows" / "out");
    fs::create_directory_symlink("System32", root / "Windows" / "in");
    return root;
  }

  static inline fs::path dir_;
  static inline std::string mkntfs_, windows_, data_;
};

constexpr std::size_t kDiskSectors = 20 * 2048;  // 20 MiB

TEST_F(ImageVolumeTest, ReadsTheWindowsVolumeOfEachLayout) {
  struct Case {
    const char* name;
    std::function<fs::path()> make;
    bool local;
  };
  const Case layouts[] = {
      {"bare partition",
       [] {
         const fs::path file = dir_ / "bare.img";
         WriteAll(file, windows_);
         return file;
       },
       false},
      {"MBR, Windows in a logical partition after a data partition",
       [] {
         return Disk("mbr.img", kDiskSectors, 2048, 6 * 2048 + 63, [](std::string& d) {
           MbrEntry(d, 0, 0, 0x07, 2048, 4 * 2048);
           MbrEntry(d, 0, 1, 0x0F, 6 * 2048, 8 * 2048);
           MbrEntry(d, 6 * 2048 * 512, 0, 0x07, 63, 4 * 2048);
         });
       },
       false},
      {"GPT, Windows second",
       [] {
         return Disk("gpt.img", kDiskSectors, 2048, 8 * 2048, [](std::string& d) {
           WriteGpt(d, {{2048, 6 * 2048 - 1}, {8 * 2048, 12 * 2048 - 1}});
         });
       },
       false},
      {"mounted directory", [] { return Directory(); }, true},
  };
  struct Read {
    const char* path;
    std::optional<std::string> text;  // nullopt: no file there
  };
  const Read reads[] = {
      {"Windows\\System32\\config\\SOFTWARE", kSoftware},
      {"windows\\SYSTEM32\\Config\\software", kSoftware},
      {"/WINDOWS/system32/CONFIG/Software", kSoftware},
      {"Windows\\.\\Fonts\\..\\System32\\config\\SOFTWARE", kSoftware},
      {"Windows\\System32\\config\\SOFTWARE\\more", std::nullopt},
      {"..\\Windows\\System32\\config\\SOFTWARE", std::nullopt},
      {"Windows\\System32\\config\\SOFTWAR", std::nullopt},
      {"Windows\\System32", std::nullopt},
  };
  for (const Case& layout : layouts) {
    SCOPED_TRACE(layout.name);
    const fs::path path = layout.make();
    const auto volume = platform::image::OpenWindowsVolume(path.string());
    for (const Read& read : reads) {
      SCOPED_TRACE(read.path);
      EXPECT_EQ(volume->readFile(read.path, 1000), read.text);
      EXPECT_EQ(volume->fileSize(read.path),
                read.text ? std::optional<std::uint64_t>(read.text->size()) : std::nullopt);
    }
    EXPECT_TRUE(volume->isDirectory("windows\\system32"));
    EXPECT_TRUE(
        volume->isDirectory("WINDOWS\\\xC3\xBC"
                            "BUNG"));  // "üBUNG"
    EXPECT_TRUE(volume->isDirectory(""));
    EXPECT_FALSE(volume->isDirectory("Windows\\big.bin"));
    EXPECT_FALSE(volume->isDirectory("Data"));

    // The size cap: a file one byte over it is refused, not cut.
    EXPECT_EQ(volume->fileSize("windows\\BIG.bin"), kBigSize);
    EXPECT_EQ(volume->readFile("windows\\BIG.bin", kBigSize - 1), std::nullopt);
    EXPECT_EQ(volume->readFile("windows\\BIG.bin", kBigSize), std::string(kBigSize, 'x'));

    std::vector<std::string> names = volume->list("WINDOWS");
    std::sort(names.begin(), names.end());
    std::vector<std::string> expected = {"System32", "big.bin",
                                         "\xC3\x9C"
                                         "bung"};
    if (layout.local)
      expected = {"System32", "big.bin", "in", "out",
                  "\xC3\x9C"
                  "bung"};
    EXPECT_EQ(names, expected);
    const std::vector<std::string> root = volume->list("\\");
    EXPECT_EQ(std::count(root.begin(), root.end(), "Windows"), 1);
    EXPECT_EQ(
        std::count_if(root.begin(), root.end(), [](const std::string& n) { return n[0] == '$'; }),
        0);
    EXPECT_TRUE(volume->list("Windows\\big.bin").empty());
    EXPECT_EQ(volume->localPath("Windows").empty(), !layout.local);
    EXPECT_NE(volume->describe().find(path.filename().string()), std::string::npos)
        << volume->describe();
  }
}

TEST_F(ImageVolumeTest, DirectoryLinksStayInside) {
  const auto volume = platform::image::OpenWindowsVolume(Directory().string());
  EXPECT_EQ(volume->readFile("windows\\IN\\config\\software", 100), kSoftware);
  EXPECT_EQ(volume->readFile("Windows\\out\\secret", 100), std::nullopt);
  EXPECT_FALSE(volume->isDirectory("Windows\\out"));
  EXPECT_TRUE(volume->list("Windows\\out").empty());
  EXPECT_EQ(volume->localPath("Windows\\out\\secret"), "");
}

TEST_F(ImageVolumeTest, OpenVolumesAnswersEveryNtfs) {
  const fs::path disk = Disk("two.img", kDiskSectors, 2048, 8 * 2048, [](std::string& d) {
    MbrEntry(d, 0, 0, 0x07, 2048, 4 * 2048);
    MbrEntry(d, 0, 1, 0x83, 6 * 2048, 2048);  // not NTFS
    MbrEntry(d, 0, 2, 0x07, 8 * 2048, 4 * 2048);
  });
  const auto volumes = platform::image::OpenVolumes(disk.string());
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0]->readFile("DATA\\README.TXT", 100), "data");
  EXPECT_EQ(volumes[0]->describe(), "two.img, partition 1 (NTFS at byte 1048576)");
  EXPECT_TRUE(volumes[1]->isDirectory("Windows"));
  EXPECT_EQ(volumes[1]->describe(), "two.img, partition 3 (NTFS at byte 8388608)");
}

TEST_F(ImageVolumeTest, RefusesWhatHoldsNoWindows) {
  struct Case {
    const char* name;
    std::function<fs::path()> make;
    const char* says;
  };
  const Case cases[] = {
      {"only a data partition",
       [] {
         return Disk("data.img", kDiskSectors, 2048, 0,
                     [](std::string& d) { MbrEntry(d, 0, 0, 0x07, 2048, 4 * 2048); });
       },
       "partition 1: NTFS without a Windows directory"},
      {"partition past the end",
       [] {
         return Disk("past.img", 4096, 0, 0,
                     [](std::string& d) { MbrEntry(d, 0, 0, 0x07, 8192, 4 * 2048); });
       },
       "starts past the image's end"},
      {"truncated inside the file system",
       [] {
         const fs::path file = dir_ / "truncated.img";
         WriteAll(file, windows_.substr(0, 12 * 1024));
         return file;
       },
       "cannot be read"},
      {"damaged boot sector",
       [] {
         std::string damaged = windows_;
         damaged[0x30] = '\x7F';  // the MFT's cluster
         const fs::path file = dir_ / "damaged.img";
         WriteAll(file, damaged);
         return file;
       },
       "cannot be read"},
      {"nothing", [] { return WriteEmpty(dir_ / "empty.img"); }, "shorter than one sector"},
      {"directory without Windows",
       [] {
         fs::create_directories(dir_ / "notwin" / "Users");
         return dir_ / "notwin";
       },
       "no Windows directory here (found: Users)"},
      {"no such path", [] { return dir_ / "absent"; }, "no such file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path path = c.make();
    try {
      platform::image::OpenWindowsVolume(path.string());
      ADD_FAILURE() << "opened";
    } catch (const platform::RecordError& e) {
      const std::string message = e.what();
      EXPECT_EQ(message.rfind(path.string(), 0), 0u) << message;
      EXPECT_NE(message.find(c.says), std::string::npos) << message;
    }
  }
}

}  // namespace
