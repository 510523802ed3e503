// The program that checks a database: what it prints, and its exit codes.

#ifndef _WIN32
#include <sys/wait.h>
#endif

#include <cstdio>

#include "check/market.h"

namespace zelta::testing {
namespace {

#ifdef _WIN32
FILE* beginCommand(const std::string& command) {
  std::wstring wide;
  for (const char16_t unit :
       std::filesystem::path(std::u8string(command.begin(), command.end())).u16string()) {
    wide += static_cast<wchar_t>(unit);
  }
  return _wpopen(wide.c_str(), L"rt");
}
int endCommand(FILE* pipe) { return _pclose(pipe); }
#else
FILE* beginCommand(const std::string& command) { return popen(command.c_str(), "r"); }
int endCommand(FILE* pipe) {
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
#endif

class CheckProgram : public Market {
 protected:
  /// Runs the program; `output` is what it prints on both ways.
  int run(const std::string& arguments) {
    const std::string command = std::string(ZELTA_CHECK_PROGRAM) + " " + arguments + " 2>&1";
    output.clear();
    FILE* pipe = beginCommand(command);
    if (pipe == nullptr) return -1;
    char piece[4096];
    for (std::size_t size = 0; (size = fread(piece, 1, sizeof piece, pipe)) != 0;) {
      output.append(piece, size);
    }
    return endCommand(pipe);
  }
  [[nodiscard]] std::string file(const std::string& name) const {
    return (folder.path() / name).string();
  }

  std::string output;
};

TEST_F(CheckProgram, FindsNothingInASoundDatabase) {
  makeTables();
  fill(20);
  EXPECT_EQ(run(file("shop.zlc")), 0) << output;
  EXPECT_EQ(output.rfind("4 tables, 80 objects, 8 indexes", 0), 0u) << output;
  EXPECT_NE(output.find("\nnothing is wrong\n"), std::string::npos) << output;
  EXPECT_EQ(run(file("shop")), 0) << "the extension may be left out: " << output;
}

TEST_F(CheckProgram, TakesNamesOfAllCharacters) {
  const std::filesystem::path name = folder.path() / u"\u00c4 \u4e2d.zlc";
  CZELTA handle;
  ASSERT_DONE(handle, handle.CreateDatabase(name.u16string().c_str()));
  ASSERT_DONE(handle, handle.CloseDatabase());
  const std::u8string argument = name.u8string();
  EXPECT_EQ(run("\"" + std::string(argument.begin(), argument.end()) + "\""), 0) << output;
}

TEST_F(CheckProgram, NamesFileAndPlaceOfDamage) {
  makeTables();
  fill(20);
  std::string bytes = folder.bytes("wide.zlt");
  bytes[0] = 'z';
  folder.write("wide.zlt", bytes);
  EXPECT_EQ(run(file("shop.zlc")), 1) << output;
  EXPECT_EQ(output.rfind("damage: " + file("wide.zlt") + " at 0: ", 0), 0u) << output;
}

TEST_F(CheckProgram, TellsOfRemainsOnlyWhenAskedAndDoesNotMindThem) {
  makeTables();
  folder.write("fixed.zlt", folder.bytes("fixed.zlt") + "more");
  EXPECT_EQ(run(file("shop")), 0) << output;
  EXPECT_EQ(output.find("remains: "), std::string::npos) << output;
  EXPECT_EQ(run("--remains " + file("shop")), 0) << output;
  EXPECT_NE(output.find("remains: " + file("fixed.zlt")), std::string::npos) << output;
}

TEST_F(CheckProgram, TellsOfAnOpenTransactionAsPendingWork) {
  makeTables();
  CZELTA handle;
  ASSERT_DONE(handle, handle.OpenDatabase(path().c_str()));
  ASSERT_DONE(handle, handle.BeginTransaction(CZELTA::TransactionShared, 10000));
  EXPECT_EQ(run(file("shop")), 1) << output;
  EXPECT_EQ(output.rfind("pending: ", 0), 0u) << output;
}

TEST_F(CheckProgram, EndsAtTheLimit) {
  makeTables();
  fill(50);
  std::string bytes = folder.bytes("fixed.zlt");
  std::fill(bytes.begin() + 600, bytes.end(), '\x7F');
  folder.write("fixed.zlt", bytes);
  EXPECT_EQ(run("--limit 3 " + file("shop")), 1);
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 5) << output;
}

TEST_F(CheckProgram, ExplainsItself) {
  EXPECT_EQ(run("--help"), 0);
  EXPECT_EQ(output.rfind("usage: zelta-check", 0), 0u) << output;
  for (const char* wrong : {"", "--limit", "--limit x a", "--limit 0 a", "--what a", "a b"}) {
    EXPECT_EQ(run(wrong), 2) << wrong;
    EXPECT_EQ(output.rfind("usage: zelta-check", 0), 0u) << wrong;
  }
  EXPECT_EQ(run(file("missing")), 2);
  EXPECT_EQ(output, "zelta-check: " + file("missing.zlc") + " cannot be read\n");
}

}  // namespace
}  // namespace zelta::testing
