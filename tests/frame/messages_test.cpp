// Every failure text, written out here in full, with the room that it has.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "frame/messages.h"
#include "frame/metadata.h"
#include "frame/result.h"

namespace zelta {
namespace {

std::string plain(const char16_t* text) {
  std::string out;
  for (; text != nullptr && *text != 0; ++text) out += static_cast<char>(*text);
  return out;
}

struct Case {
  std::uint32_t code;
  const char16_t* s1;
  const char16_t* s2;
  std::int64_t i1;
  std::int64_t i2;
  std::size_t capacity;  ///< units, terminator included
  const char* text;
};

constexpr const char16_t* kNone = nullptr;
constexpr const char16_t* kA = u"alpha";  // 5 units
constexpr const char16_t* kB = u"be";     // 2 units

// "(null)" stands for a text that was not given and counts with 6 units.
const Case kOwnCases[] = {
    {2, kA, kNone, 0, 0, 101, "Unable to open alpha.\nFile is not located on local machine."},
    {2, kNone, kNone, 0, 0, 102, "Unable to open (null).\nFile is not located on local machine."},
    {3, kNone, kNone, 0, 0, 96,
     "A vaild database and transaction must be open before this operation can complete."},
    {4, kNone, kNone, 0, 0, 128,
     "This operation requires an unedited database, with exclusive transaction mode to complete."},
    {5, kNone, kNone, 0, 0, 96,
     "This operation requires an exclusive or shared transaction mode in order to complete."},
    {6, kNone, kNone, 7, 0, 64, "Table (ID = 7) is not currently open."},
    {7, kNone, kNone, 0, 0, 70, "One or more parameters is within an invaild range."},
    {7, kNone, kNone, 0, 5, 134, "One or more parameters is within an invaild range."},
    {7, kNone, kNone, 4, 0, 134,
     "One or more parameters is within an invaild range.\nParameter 1 = 4."},
    {7, kNone, kNone, 4, -5, 198,
     "One or more parameters is within an invaild range.\nParameter 1 = 4, Parameter 2 = -5."},
    {7, kA, kNone, 0, 0, 69,
     "One or more parameters is within an invaild range for table \"alpha\"."},
    {7, kA, kNone, 4, 0, 133,
     "One or more parameters is within an invaild range for table \"alpha\".\nParameter 1 = 4."},
    {7, kA, kNone, 4, 6, 197,
     "One or more parameters is within an invaild range for table \"alpha\".\n"
     "Parameter 1 = 4, Parameter 2 = 6."},
    {8, kNone, kNone, 0, 0, 64, "This method has been called in an incorrect context."},
    {9, kA, kNone, 0, 0, 101,
     "Unable to use table name - \"alpha\".\nIt is either already in use or otherwise incorrect."},
    {10, kNone, kNone, 4294967295, 0, 96,
     "Unable to use table ID 4294967295.\nID is either in use or incorrect."},
    {11, kNone, kNone, 9, 0, 96,
     "Unable to use table lock order 9.\nLock order is either in use or incorrect."},
    {12, kNone, kNone, 1, 2, 128,
     "Unable to use table schema as it contains an invalid field.\nField 1 has type 2."},
    {12, kA, kB, 1, 2, 103,
     "Unable to use table schema as it contains an invalid field.\n"
     "Table \"alpha\", Field \"be\" has type 1."},
    {12, kA, kNone, 1, 2, 107,
     "Unable to use table schema as it contains an invalid field.\n"
     "Table \"alpha\", Field \"(null)\" has type 1."},
    {12, kNone, kB, 1, 2, 104,
     "Unable to use table schema as it contains an invalid field.\n"
     "Table \"(null)\", Field \"be\" has type 1."},
    {13, kNone, kNone, 3, 0, 128,
     "Unable to use table schema as it contains an invalid field order.\nField 3 is of fixed "
     "type."},
    {14, kNone, kNone, 3, 4, 128,
     "Unable to use table schema as it contains an invalid field ID.\nSegment 3 in index 5."},
    {14, kA, kNone, 3, 4, 133,
     "Unable to use table schema for alpha, as it contains an invalid field ID.\n"
     "Segment 3 in index 5."},
    {15, kNone, kNone, 3, 4, 128,
     "Unable to use table schema as it contains an invalid field type.\nSegment 3 in index 5."},
    {16, kNone, kNone, 3, 4, 128,
     "Unable to use table schema as it contains an invalid segment mode.\nSegment 3 in index 5."},
    {17, kNone, kNone, 3, 0, 96,
     "Unable to use table schema as it contains an invalid segment count in index 4."},
    {18, kNone, kNone, 49, 0, 96,
     "Unable to complete read operation as search mode 49 is incorrect."},
    {19, kA, kNone, 0, 1, 139,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid B+Tree index for this "
     "operation."},
    {19, kA, kNone, 1, 1, 145,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid Spatial Tree index for this "
     "operation."},
    {19, kA, kNone, 2, 1, 143,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid ASCII List index for this "
     "operation."},
    {19, kA, kNone, 3, 1, 142,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid Wide List index for this "
     "operation."},
    {19, kA, kNone, 4, 1, 146,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid Temporal Tree index for this "
     "operation."},
    {19, kA, kNone, 5, 1, 148,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid Spatial Pattern index for "
     "this operation."},
    {19, kA, kNone, 6, 1, 148,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid unknown type of index for "
     "this operation."},
    {19, kA, kNone, -1, 1, 148,
     "Unable to use index 2 in table \"alpha\",\nas it is an invalid unknown type of index for "
     "this operation."},
    {20, kNone, kNone, 1, 51, 128,
     "Unable to use table schema as it contains an\ninvalid maximum object count pow(2,51) in "
     "index 2."},
    {21, kNone, kNone, 2, 7, 96,
     "Control file version 2.7 is invalid.\nExpecting version 1.2 for this release."},
    {22, kNone, kNone, 2, 7, 96,
     "Table file version 2.7 is invalid.\nExpecting version 1.4 for this release."},
    {23, kNone, kNone, 2, 7, 96,
     "Index file version 2.7 is invalid.\nExpecting version 1.0 for this release."},
    {24, kNone, kNone, 2, 7, 96,
     "Log file version 2.7 is invalid.\nExpecting version 1.0 for this release."},
    {25, kNone, kNone, 0, 0, 96,
     "Unable to start transaction, timed out because the database is locked."},
    {27, kNone, kNone, 12, 0, 64, "Unable to gain lock on object 12."},
    {27, kA, kNone, 12, 0, 101, "Unable to gain lock on object 12 in table alpha."},
    {28, kNone, kNone, 0, 0, 64, "Unable to complete operation of different thread."},
    {30, kNone, kNone, 8, 0, 64, "Unable to find table with ID = 8."},
    {31, kA, kNone, 12, 0, 69, "Unable to find object 12 in table alpha."},
    {31, kA, kB, 12, 0, 69, "Unable to find object 12 in table alphabe."},
    {32, kA, kNone, 0, 2, 101, "Unable to find index key within index 3 of table \"alpha\""},
    {32, kA, kNone, 12, 2, 101,
     "Unable to find index key for object 12, within index 3 of table \"alpha\""},
    {33, kNone, kNone, 5, 0, 64, "Unable to find log entry for transaction 5."},
    {34, kNone, kNone, 0, 0, 32, "CZELTA is already in use."},
    {35, kNone, kNone, 5, 0, 64, "Table 5 must not be used before this operation."},
    {36, kA, kNone, 123456789, 0, 101,
     "Unable to add object with requested ID into table alpha. ObjectID 123456789 already exists "
     "in table."},
    {37, kNone, kNone, 12, 2, 128,
     "Unable to add/edit/restore object.\nIndex key value already exists in index 3 with object "
     "12."},
    {37, kA, kNone, 12, 2, 133,
     "Unable to add/edit/restore object in alpha.\nIndex key value already exists in index 3 with "
     "object 12."},
    {38, kNone, kNone, 5, 0, 96, "Unable to add log entry, transactionID (5) already in use."},
    {39, kNone, kNone, 0, 0, 64, "The table handle does not currently contain a valid object."},
    {40, kNone, kNone, 1, 0, 96,
     "SearchIndex() must be called before you are able to read on index 2."},
    {41, kNone, kNone, 0, 0, 96,
     "Transaction must be saved or aborted before operation can complete."},
    {42, kNone, kNone, 3, 2, 128,
     "Unable to use table schema as sub-field 2 of field 3 contains an invalid field .name"},
    {42, kNone, kNone, 3, -1, 128,
     "Unable to use table schema as field 3 contains an invalid field name."},
    {43, kA, kNone, 17, 0, 69, "Unable to cast data for field \"alpha.\" (data type = 17)"},
    {44, kA, kNone, 1, 0, 101,
     "Index 2 of table \"alpha\" has become\ninconsistent with the underlining data."},
    {45, kA, kNone, 12, 3, 165,
     "Within table \"alpha\",\nObject buffer is longer then processed length.\nObjectID 12 is 3 "
     "bytes too long."},
    {45, kA, kB, 12, 3, 167,
     "Within table \"alpha\", field \"be\",\nObject buffer is longer then processed length.\n"
     "ObjectID 12 is 3 bytes too long."},
    {46, kA, kB, 12, -3, 167,
     "Within table \"alpha\", the format of variable field \"be\" is invalid.\nObjectID 12 is 3 "
     "bytes too short"},
    {46, kA, kB, 12, 3, 167,
     "Within table \"alpha\", the format of variable field \"be\" is invalid.\nObjectID 12 is 3 "
     "bytes too long"},
    {46, kA, kB, 12, 0, 167,
     "Within table \"alpha\", the format of variable field \"be\" is invalid.\nObjectID 12 is "
     "incorrect"},
    {47, kA, kNone, 0, 0, 101,
     "Table alpha has become corrupted.\nDelete ID list is no longer valid."},
    {47, kA, kNone, 12, 0, 165,
     "Table alpha has become corrupted.\nDelete ID list is no longer valid.\nObject ID = 12"},
    {48, kNone, kNone, 0, 0, 96, "File has become corrupted - free space list is no longer valid."},
    {50, kA, kNone, 1, 0, 133,
     "Index 2 of alpha has become corrupted.\nB+Tree variable leaf format is no longer valid."},
    {51, kA, kNone, 1, 0, 101,
     "Index 2 of alpha has become corrupted.\nB+Tree is no longer valid."},
    {52, kA, kNone, 1, 0, 101,
     "Index 2 of alpha has become corrupted.\nSpatial Tree is no longer valid."},
    {54, kNone, kNone, 0, 0, 64, "Control file has become corrupted."},
    {55, kA, kNone, 0, 0, 69, "Table alpha has become corrupted."},
    {56, kNone, kNone, 0, 0, 64, "Log file has become corrupted."},
    {57, kNone, kNone, 0, 0, 64, "Index file has become corrupted."},
    {58, kNone, kNone, 0, 0, 64, "Memory file has become corrupted."},
    {59, kA, kB, 1, -2, 135,
     "An unclassified error has occured while executing operation.\nString1 = alpha.\n"
     "String2 = be.\nInteger1 = 1, Integer2 = -2"},
    {61, kNone, kNone, 3, 4, 128,
     "Unable to use table schema as it contains an invalid multi-entry segment.\n"
     "Segment 3 in index 5."},
    {63, kA, kNone, 0, 0, 101,
     "Unable to complete operation as the search:-\n\"alpha\"\nis invalid."},
    {64, kA, kNone, 1, 0, 101,
     "Index 2 of alpha has become corrupted.\nTemporal Tree is no longer valid."},
    {65, kA, kNone, 1, 0, 101,
     "Index 2 of alpha has become corrupted.\nSpatial Pattern Index is no longer valid."},
    {66, kA, kB, 12, 0, 167,
     "Within table \"alpha\", the format of variable field \"be\" of ObjectID 12 is invalid.\n"
     "Field has an invalid offset"},
    {67, kNone, kNone, 5, 0, 64, "Unable to gain lock on transaction 5."},
    {68, kNone, kNone, 0x1ABCDEF, 10, 128,
     "Log position 1abcdef in file a is invalid.\nYou need to re-synchronize your database."},
    {68, kNone, kNone, 0x7'0000'0001, -1, 128,
     "Log position 1 in file ffffffff is invalid.\nYou need to re-synchronize your database."},
    {69, kNone, kNone, 0, 0, 64, "Transaction log entry is corrupted."},
};

const Case kSystemCases[] = {
    {2, kA, kNone, 0, 0, 53, "The system cannot find file \"alpha\"."},
    {2, kNone, kNone, 0, 0, 54, "The system cannot find file \"(null)\"."},
    {3, kA, kNone, 0, 0, 69, "The directory path for file \"alpha\" does not exist."},
    {5, kA, kNone, 0, 0, 69, "Unable to access resource \"alpha\" - access denied."},
    {6, kA, kNone, 0, 0, 69,
     "Invaild handle given for operation to complete.\nFile name: \"alpha\"."},
    {7, kA, kNone, 0, 0, 69,
     "The storage control blocks were destroyed.\nFile \"alpha\" is corrupt."},
    {8, kNone, kNone, 0, 0, 64, "Unable to allocate enough memory to complete operation."},
    {21, kNone, kNone, 0, 0, 64, "The device is not ready."},
    {32, kA, kB, 1, 0, 103,
     "Unable to access file - \"alphabe\".\nBecause it is being used by another process."},
    {32, kA, kNone, 0, 0, 107,
     "Unable to access file - \"alpha\".\nBecause it is being used by another process."},
    {32, kA, kNone, 1, 0, 107,
     "Unable to access file 1.\nBecause it is being used by another process."},
    {33, kA, kNone, 0, 0, 107,
     "Unable to access file - \"alpha\".\nFile is locked by another process."},
    {33, kA, kNone, 1, 0, 107, "Unable to access file id - 1.\nFile is locked by another process."},
    {33, kA, kB, 0, 3, 103,
     "Unable to access file - \"alphabe\".\nFile is locked by another process."},
    {33, kA, kB, 1, 0, 103,
     "Unable to access file - \"alphabe\" from 1.\nFile is locked by another process."},
    {33, kA, kB, 1, 3, 103,
     "Unable to access file - \"alphabe\" from 1 for 3.\nFile is locked by another process."},
    {38, kA, kB, 0, 0, 103, "Unexpected end of file in \"alphabe\".\nPossible file corruption."},
    {38, kA, kNone, 0, 0, 107, "Unexpected end of file in \"alpha\".\nPossible file corruption."},
    {38, kA, kNone, 4, 0, 107, "Unexpected end of file id - 4.\nPossible file corruption."},
    {80, kA, kNone, 0, 0, 69, "Unable to create \"alpha\",\nFile already exists."},
    {87, kNone, kNone, 0, 0, 64, "Invaild parameter given to windows API functon."},
    {112, kNone, kNone, 0, 0, 96,
     "There is not enough space on the disk to complete the operation."},
    {122, kNone, kNone, 0, 0, 64, "The data area passed to a system call is too small."},
    {131, kA, kB, 0, 0, 103,
     "An attempt was made to move the file pointer\nbefore the beginning of file:- \"alphabe\"."},
    {158, kNone, kNone, 0, 0, 64, "Unable to unlock segment, it's already unlocked."},
    {183, kA, kNone, 0, 0, 101, "Unable to create \"alpha\", it already exists."},
    {258, kNone, kNone, 0, 0, 64, "Unable to complete operation, have timed out."},
    {288, kNone, kNone, 0, 0, 64, "Attempt to release mutex not owned by caller."},
    {1224, kA, kB, 0, 0, 135,
     "The requested operation cannot be performed on \"alphabe\"\nwith a user-mapped section "
     "open."},
    {1392, kA, kB, 0, 0, 135, "The file or directory is corrupted and unreadable.\n\"alphabe\""},
    {1450, kNone, kNone, 0, 0, 140,
     "Insufficient system resources exist to complete the requested service."},
    {1450, kA, kNone, 0, 0, 139,
     "Insufficient system resources exist to complete the requested service.\n\"alpha\""},
    {1450, kA, kB, 0, 0, 135,
     "Insufficient system resources exist to complete the requested service.\n\"alphabe\""},
    {4, kA, kB, 0, 0, 135,
     "Unknown Windows error code 4 (0x4).\nString1 = alpha.\nString2 = be.\nInteger1 = 0, "
     "Integer2 = 0"},
    {0xDEADBEEF, kA, kNone, 9, 8, 139,
     "Unknown Windows error code 3735928559 (0xDEADBEEF).\nString1 = alpha.\nString2 = (null).\n"
     "Integer1 = 9, Integer2 = 8"},
};

MessageInput inputOf(const Case& one) {
  return {one.s1 == nullptr ? kNoText : one.s1, one.s2 == nullptr ? kNoText : one.s2, one.i1,
          one.i2};
}

TEST(Messages, EveryOwnCodeHasItsTextAndCapacity) {
  MetaData metaData;
  for (const Case& one : kOwnCases) {
    SCOPED_TRACE("own " + std::to_string(one.code) + ": " + one.text);
    const Result result =
        reportError(&metaData, static_cast<Own>(one.code), one.s1, one.s2, one.i1, one.i2);
    EXPECT_EQ(result.word(), 0x1'0000'0000u + one.code);
    EXPECT_EQ(ownMessageCapacity(one.code, inputOf(one)), one.capacity);
    // A text that needs all of its room would be cut.
    ASSERT_LT(std::strlen(one.text), one.capacity);
    EXPECT_EQ(plain(metaData.errorMessage), one.text);
  }
}

TEST(Messages, EverySystemCodeHasItsTextAndCapacity) {
  MetaData metaData;
  for (const Case& one : kSystemCases) {
    SCOPED_TRACE("system " + std::to_string(one.code) + ": " + one.text);
    const Result result = reportSystemError(&metaData, one.code, one.s1, one.s2, one.i1, one.i2);
    EXPECT_EQ(result.word(), 0x2'0000'0000u + one.code);
    EXPECT_EQ(systemMessageCapacity(one.code, inputOf(one)), one.capacity);
    ASSERT_LT(std::strlen(one.text), one.capacity);
    EXPECT_EQ(plain(metaData.errorMessage), one.text);
  }
}

TEST(Messages, NumbersWithoutATextTakeTheFallback) {
  MetaData metaData;
  std::vector<std::uint32_t> codes = {0, 1, 26, 29, 49, 53, 60, 62, 70, 71, 1000, 0xFFFFFFFF};
  for (const std::uint32_t code : codes) {
    const Result result = reportError(&metaData, static_cast<Own>(code), nullptr, u"x", 3, -4);
    EXPECT_EQ(result.word(), 0x1'0000'0000u + code);
    char hex[16];
    std::snprintf(hex, sizeof hex, "%X", code);
    EXPECT_EQ(plain(metaData.errorMessage),
              "Unknown Zeltastore error code " + std::to_string(code) + " (0x" + hex +
                  ").\nString1 = (null).\nString2 = x.\nInteger1 = 3, Integer2 = -4");
    EXPECT_EQ(ownMessageCapacity(code, {kNoText, u"x", 3, -4}), 135u);
  }
}

TEST(Messages, ATextLongerThanItsRoomIsCut) {
  MetaData metaData;
  reportError(&metaData, Own::idExists, u"alpha", nullptr, 12345678901).ignore();
  const std::string full =
      "Unable to add object with requested ID into table alpha. ObjectID 12345678901 already "
      "exists in table.";
  ASSERT_EQ(full.size(), 102u);
  EXPECT_EQ(plain(metaData.errorMessage), full.substr(0, 100));  // 5 + 96 units with the terminator
}

TEST(Messages, ACallersNullTextIsNotTheMissingOne) {
  MetaData metaData;
  const std::u16string given = u"(null)";
  reportError(&metaData, Own::objectLocked, given.c_str(), nullptr, 1).ignore();
  EXPECT_EQ(plain(metaData.errorMessage), "Unable to gain lock on object 1 in table (null).");
  reportError(&metaData, Own::objectLocked, nullptr, nullptr, 1).ignore();
  EXPECT_EQ(plain(metaData.errorMessage), "Unable to gain lock on object 1.");
}

TEST(Messages, NumbersAreSignedAndOfFullWidth) {
  MetaData metaData;
  reportError(&metaData, Own::objectLocked, nullptr, nullptr, INT64_MIN).ignore();
  EXPECT_EQ(plain(metaData.errorMessage), "Unable to gain lock on object -9223372036854775808.");
  reportError(&metaData, Own::objectLocked, nullptr, nullptr, INT64_MAX).ignore();
  EXPECT_EQ(plain(metaData.errorMessage), "Unable to gain lock on object 9223372036854775807.");
  reportError(&metaData, Own::segmentField, nullptr, nullptr, 0, INT64_MAX)
      .ignore();  // no overflow
  reportError(&metaData, Own::variableField, kA, kB, 1, INT64_MIN).ignore();
}

TEST(Messages, TextsKeepUnitsBeyondAscii) {
  MetaData metaData;
  reportError(&metaData, Own::tableFile, u"\u00e4\u4e2d\xD83D\xDE00").ignore();
  EXPECT_EQ(std::u16string(metaData.errorMessage),
            u"Table \u00e4\u4e2d\xD83D\xDE00 has become corrupted.");
}

TEST(Messages, NarrowTextsAreWidened) {
  MetaData metaData;
  EXPECT_EQ(reportErrorNarrow(&metaData, Own::search, "a & \xC3\xA4").word(), 0x1'0000'003Fu);
  EXPECT_EQ(std::u16string(metaData.errorMessage),
            u"Unable to complete operation as the search:-\n\"a & \u00e4\"\nis invalid.");
  reportErrorNarrow(&metaData, Own::objectLocked, nullptr, nullptr, 3).ignore();
  EXPECT_EQ(plain(metaData.errorMessage), "Unable to gain lock on object 3.");
}

TEST(Messages, WithoutARecordThereIsOnlyTheWord) {
  EXPECT_EQ(reportError(nullptr, Own::unclassified, u"x").word(), 0x1'0000'003Bu);
  EXPECT_EQ(reportSystemError(nullptr, 33).word(), 0x2'0000'0021u);
}

TEST(Messages, CodeZeroOfTheSystemIsNoFailure) {
  MetaData metaData;
  EXPECT_EQ(reportSystemError(&metaData, 0, u"x").word(), 0u);
  EXPECT_EQ(metaData.errorMessage, nullptr);
}

TEST(Scratch, LargeBuffersAreFreedAndSmallOnesStay) {
  MetaData metaData;
  for (std::size_t i = 0; i < 7; ++i) metaData.scratch[i].reserve(i < 3 ? 4096 : 2048);
  trimScratch(metaData, false);
  for (const ScratchBuffer& buffer : metaData.scratch) EXPECT_NE(buffer.data(), nullptr);
  for (std::size_t i = 0; i < 7; ++i) metaData.scratch[i].reserve(i < 3 ? 4097 : 2049);
  trimScratch(metaData, false);
  for (const ScratchBuffer& buffer : metaData.scratch) EXPECT_EQ(buffer.size(), 0u);
  metaData.scratch[0].reserve(1);
  EXPECT_EQ(metaData.scratch[0].size(), 1024u);
  trimScratch(metaData, true);
  EXPECT_EQ(metaData.scratch[0].data(), nullptr);
}

}  // namespace
}  // namespace zelta
