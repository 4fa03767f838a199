// What the shared library shows to the dynamic linker, read from the file itself.
#include <elf.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

/// The dynamic section and symbols of a 64-bit ELF file of this machine's byte order.
class SharedLibrary {
 public:
  explicit SharedLibrary(const char* path) {
    std::ifstream in(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(in), {});
    const auto header = at<Elf64_Ehdr>(0);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) return;
    type = header.e_type;
    for (size_t i = 0; i < header.e_shnum; ++i) {
      const auto section = at<Elf64_Shdr>(header.e_shoff + i * header.e_shentsize);
      if (section.sh_type != SHT_DYNSYM && section.sh_type != SHT_DYNAMIC) continue;
      const auto strings = at<Elf64_Shdr>(header.e_shoff + section.sh_link * header.e_shentsize);
      if (section.sh_type == SHT_DYNSYM) readSymbols(section, strings.sh_offset);
      if (section.sh_type == SHT_DYNAMIC) readDynamic(section, strings.sh_offset);
    }
  }

  unsigned type = ET_NONE;
  std::map<std::string, Elf64_Sym> defined;  // whatever the linker can find here
  std::string soname;
  std::set<std::string> needed;

 private:
  template <class Record>
  Record at(size_t offset) const {
    Record record{};
    if (offset + sizeof record <= bytes_.size()) std::memcpy(&record, &bytes_[offset], sizeof record);
    return record;
  }

  std::string text(size_t offset) const { return offset < bytes_.size() ? std::string(&bytes_[offset]) : ""; }

  void readSymbols(const Elf64_Shdr& section, size_t strings) {
    for (size_t i = 0; i < section.sh_size / sizeof(Elf64_Sym); ++i) {
      const auto symbol = at<Elf64_Sym>(section.sh_offset + i * sizeof(Elf64_Sym));
      if (symbol.st_shndx != SHN_UNDEF) defined[text(strings + symbol.st_name)] = symbol;
    }
  }

  void readDynamic(const Elf64_Shdr& section, size_t strings) {
    for (size_t i = 0; i < section.sh_size / sizeof(Elf64_Dyn); ++i) {
      const auto entry = at<Elf64_Dyn>(section.sh_offset + i * sizeof(Elf64_Dyn));
      if (entry.d_tag == DT_SONAME) soname = text(strings + entry.d_un.d_val);
      if (entry.d_tag == DT_NEEDED) needed.insert(text(strings + entry.d_un.d_val));
    }
  }

  std::vector<char> bytes_;
};

TEST(Exports, ThirteenFunctionsAndTheLock) {
  const SharedLibrary library(CORVALITH_LIBRARY);
  ASSERT_EQ(library.type, static_cast<unsigned>(ET_DYN)) << "no shared library at " CORVALITH_LIBRARY;
  const std::set<std::string> functions = {
      "CorvalithBuildAgent",           "CorvalithBuildModel",       "CorvalithInitialize",
      "CorvalithSetNetInput",          "CorvalithExecuteNet",       "CorvalithRelease",
      "CorvalithGetNetOutput",         "CorvalithGetNetOutputSize", "CorvalithGetLayerOutput",
      "CorvalithGetLayerOutputSize",   "CorvalithGetNetInputSize",  "CorvalithSetMaxInputSize",
      "CorvalithDumpModelForHalfFloat"};
  ASSERT_EQ(functions.size(), 13u);
  std::set<std::string> expected = functions, found;
  expected.insert("GLOBAL_LOCK");
  for (const auto& [name, symbol] : library.defined) {
    found.insert(name);
    const int kind = ELF64_ST_TYPE(symbol.st_info);
    EXPECT_EQ(kind, functions.count(name) != 0 ? STT_FUNC : STT_OBJECT) << name;
    EXPECT_EQ(ELF64_ST_BIND(symbol.st_info), STB_GLOBAL) << name;
  }
  EXPECT_EQ(found, expected);
  if (found.count("GLOBAL_LOCK") != 0) {
    EXPECT_EQ(library.defined.at("GLOBAL_LOCK").st_size, sizeof(pthread_mutex_t));
  }
}

TEST(Exports, NameAndDependencies) {
  const SharedLibrary library(CORVALITH_LIBRARY);
  EXPECT_EQ(library.soname, "libcorvalith.so.0");
  EXPECT_EQ(library.needed.count("libc.so.6"), 1u);
  const std::set<std::string> allowed = {"libstdc++.so.6", "libc++.so.1", "libgcc_s.so.1",  "libm.so.6",
                                         "libc.so.6",      "libdl.so.2",  "libpthread.so.0"};
  for (const std::string& name : library.needed) {
    const bool system = allowed.count(name) != 0 || name.rfind("ld-linux", 0) == 0;
    const bool sanitizer = name.find("san.so") != std::string::npos;  // in sanitizer builds
    EXPECT_TRUE(system || sanitizer) << name;
  }
}

}  // namespace
