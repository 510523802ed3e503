#include "frame/messages.h"

#include <cstddef>
#include <iterator>
#include <string>

namespace zelta {

const char16_t kNoText[] = u"(null)";

namespace {

constexpr std::uint32_t kFallback = 0xFFFFFFFF;

/// Which of a code's forms applies; the first that does is taken.
enum class When {
  always,
  noTexts,
  noS1,
  noS2,
  hasS2,
  noI1,
  noI2,
  someI2,
  plainNoI1,
  negativeI2,
  positiveI2
};

/// Texts whose length adds to the capacity.
enum class TextLength { none, first, both };

/// A text. The letters of `arguments`: a, b the texts; 1, 2 the numbers; A, B the numbers plus 1
/// (indexes count from 1 for people); n minus the second number; k the name of a kind of index; c
/// the code.
struct Form {
  std::uint32_t code;
  When when;
  std::uint32_t capacity;
  TextLength lengths;
  const char* arguments;
  const char* text;
};

constexpr Form kOwnForms[] = {
    {2, When::always, 96, TextLength::first, "a",
     "Unable to open %s.\nFile is not located on local machine."},
    {3, When::always, 96, TextLength::none, "",
     "A vaild database and transaction must be open before this operation can complete."},
    {4, When::always, 128, TextLength::none, "",
     "This operation requires an unedited database, with exclusive transaction mode to complete."},
    {5, When::always, 96, TextLength::none, "",
     "This operation requires an exclusive or shared transaction mode in order to complete."},
    {6, When::always, 64, TextLength::none, "1", "Table (ID = %lld) is not currently open."},
    {8, When::always, 64, TextLength::none, "",
     "This method has been called in an incorrect context."},
    {9, When::always, 96, TextLength::first, "a",
     "Unable to use table name - \"%s\".\nIt is either already in use or otherwise incorrect."},
    {10, When::always, 96, TextLength::none, "1",
     "Unable to use table ID %lld.\nID is either in use or incorrect."},
    {11, When::always, 96, TextLength::none, "1",
     "Unable to use table lock order %lld.\nLock order is either in use or incorrect."},
    {12, When::noTexts, 128, TextLength::none, "12",
     "Unable to use table schema as it contains an invalid field.\nField %lld has type %lld."},
    {12, When::always, 96, TextLength::both, "ab1",
     "Unable to use table schema as it contains an invalid field.\nTable \"%s\", Field \"%s\" has "
     "type %lld."},
    {13, When::always, 128, TextLength::none, "1",
     "Unable to use table schema as it contains an invalid field order.\nField %lld is of fixed "
     "type."},
    {14, When::noS1, 128, TextLength::none, "1B",
     "Unable to use table schema as it contains an invalid field ID.\nSegment %lld in index %lld."},
    {14, When::always, 128, TextLength::first, "a1B",
     "Unable to use table schema for %s, as it contains an invalid field ID.\nSegment %lld in "
     "index %lld."},
    {15, When::always, 128, TextLength::none, "1B",
     "Unable to use table schema as it contains an invalid field type.\nSegment %lld in index "
     "%lld."},
    {16, When::always, 128, TextLength::none, "1B",
     "Unable to use table schema as it contains an invalid segment mode.\nSegment %lld in index "
     "%lld."},
    {17, When::always, 96, TextLength::none, "A",
     "Unable to use table schema as it contains an invalid segment count in index %lld."},
    {18, When::always, 96, TextLength::none, "1",
     "Unable to complete read operation as search mode %lld is incorrect."},
    {19, When::always, 128, TextLength::first, "Bak",
     "Unable to use index %lld in table \"%s\",\nas it is an invalid %s index for this operation."},
    {20, When::always, 128, TextLength::none, "2A",
     "Unable to use table schema as it contains an\ninvalid maximum object count pow(2,%lld) in "
     "index %lld."},
    {21, When::always, 96, TextLength::none, "12",
     "Control file version %lld.%lld is invalid.\nExpecting version 1.2 for this release."},
    {22, When::always, 96, TextLength::none, "12",
     "Table file version %lld.%lld is invalid.\nExpecting version 1.4 for this release."},
    {23, When::always, 96, TextLength::none, "12",
     "Index file version %lld.%lld is invalid.\nExpecting version 1.0 for this release."},
    {24, When::always, 96, TextLength::none, "12",
     "Log file version %lld.%lld is invalid.\nExpecting version 1.0 for this release."},
    {25, When::always, 96, TextLength::none, "",
     "Unable to start transaction, timed out because the database is locked."},
    {27, When::noS1, 64, TextLength::none, "1", "Unable to gain lock on object %lld."},
    {27, When::always, 96, TextLength::first, "1a",
     "Unable to gain lock on object %lld in table %s."},
    {28, When::always, 64, TextLength::none, "",
     "Unable to complete operation of different thread."},
    {30, When::always, 64, TextLength::none, "1", "Unable to find table with ID = %lld."},
    {31, When::noS2, 64, TextLength::first, "1a", "Unable to find object %lld in table %s."},
    {31, When::always, 64, TextLength::first, "1ab", "Unable to find object %lld in table %s%s."},
    {32, When::noI1, 96, TextLength::first, "Ba",
     "Unable to find index key within index %lld of table \"%s\""},
    {32, When::always, 96, TextLength::first, "1Ba",
     "Unable to find index key for object %lld, within index %lld of table \"%s\""},
    {33, When::always, 64, TextLength::none, "1", "Unable to find log entry for transaction %lld."},
    {34, When::always, 32, TextLength::none, "", "CZELTA is already in use."},
    {35, When::always, 64, TextLength::none, "1",
     "Table %lld must not be used before this operation."},
    {36, When::always, 96, TextLength::first, "a1",
     "Unable to add object with requested ID into table %s. ObjectID %lld already exists in "
     "table."},
    {37, When::noS1, 128, TextLength::none, "B1",
     "Unable to add/edit/restore object.\nIndex key value already exists in index %lld with object "
     "%lld."},
    {37, When::always, 128, TextLength::first, "aB1",
     "Unable to add/edit/restore object in %s.\nIndex key value already exists in index %lld with "
     "object %lld."},
    {38, When::always, 96, TextLength::none, "1",
     "Unable to add log entry, transactionID (%lld) already in use."},
    {39, When::always, 64, TextLength::none, "",
     "The table handle does not currently contain a valid object."},
    {40, When::always, 96, TextLength::none, "A",
     "SearchIndex() must be called before you are able to read on index %lld."},
    {41, When::always, 96, TextLength::none, "",
     "Transaction must be saved or aborted before operation can complete."},
    {42, When::someI2, 128, TextLength::none, "21",
     "Unable to use table schema as sub-field %lld of field %lld contains an invalid field .name"},
    {42, When::always, 128, TextLength::none, "1",
     "Unable to use table schema as field %lld contains an invalid field name."},
    {43, When::always, 64, TextLength::first, "a1",
     "Unable to cast data for field \"%s.\" (data type = %lld)"},
    {44, When::always, 96, TextLength::first, "Aa",
     "Index %lld of table \"%s\" has become\ninconsistent with the underlining data."},
    {45, When::noS2, 160, TextLength::first, "a12",
     "Within table \"%s\",\nObject buffer is longer then processed length.\nObjectID %lld is %lld "
     "bytes too long."},
    {45, When::always, 160, TextLength::both, "ab12",
     "Within table \"%s\", field \"%s\",\nObject buffer is longer then processed length.\nObjectID "
     "%lld is %lld bytes too long."},
    {46, When::negativeI2, 160, TextLength::both, "ab1n",
     "Within table \"%s\", the format of variable field \"%s\" is invalid.\nObjectID %lld is %lld "
     "bytes too short"},
    {46, When::positiveI2, 160, TextLength::both, "ab12",
     "Within table \"%s\", the format of variable field \"%s\" is invalid.\nObjectID %lld is %lld "
     "bytes too long"},
    {46, When::always, 160, TextLength::both, "ab1",
     "Within table \"%s\", the format of variable field \"%s\" is invalid.\nObjectID %lld is "
     "incorrect"},
    {47, When::noI1, 96, TextLength::first, "a",
     "Table %s has become corrupted.\nDelete ID list is no longer valid."},
    {47, When::always, 160, TextLength::first, "a1",
     "Table %s has become corrupted.\nDelete ID list is no longer valid.\nObject ID = %lld"},
    {48, When::always, 96, TextLength::none, "",
     "File has become corrupted - free space list is no longer valid."},
    {50, When::always, 128, TextLength::first, "Aa",
     "Index %lld of %s has become corrupted.\nB+Tree variable leaf format is no longer valid."},
    {51, When::always, 96, TextLength::first, "Aa",
     "Index %lld of %s has become corrupted.\nB+Tree is no longer valid."},
    {52, When::always, 96, TextLength::first, "Aa",
     "Index %lld of %s has become corrupted.\nSpatial Tree is no longer valid."},
    {54, When::always, 64, TextLength::none, "", "Control file has become corrupted."},
    {55, When::always, 64, TextLength::first, "a", "Table %s has become corrupted."},
    {56, When::always, 64, TextLength::none, "", "Log file has become corrupted."},
    {57, When::always, 64, TextLength::none, "", "Index file has become corrupted."},
    {58, When::always, 64, TextLength::none, "", "Memory file has become corrupted."},
    {59, When::always, 128, TextLength::both, "ab12",
     "An unclassified error has occured while executing operation.\nString1 = %s.\nString2 = "
     "%s.\nInteger1 = %lld, Integer2 = %lld"},
    {61, When::always, 128, TextLength::none, "1B",
     "Unable to use table schema as it contains an invalid multi-entry segment.\nSegment %lld in "
     "index %lld."},
    {63, When::always, 96, TextLength::first, "a",
     "Unable to complete operation as the search:-\n\"%s\"\nis invalid."},
    {64, When::always, 96, TextLength::first, "Aa",
     "Index %lld of %s has become corrupted.\nTemporal Tree is no longer valid."},
    {65, When::always, 96, TextLength::first, "Aa",
     "Index %lld of %s has become corrupted.\nSpatial Pattern Index is no longer valid."},
    {66, When::always, 160, TextLength::both, "ab1",
     "Within table \"%s\", the format of variable field \"%s\" of ObjectID %lld is invalid.\nField "
     "has an invalid offset"},
    {67, When::always, 64, TextLength::none, "1", "Unable to gain lock on transaction %lld."},
    {68, When::always, 128, TextLength::none, "12",
     "Log position %x in file %x is invalid.\nYou need to re-synchronize your database."},
    {69, When::always, 64, TextLength::none, "", "Transaction log entry is corrupted."},
    {kFallback, When::always, 128, TextLength::both, "ccab12",
     "Unknown Zeltastore error code %lld (0x%X).\nString1 = %s.\nString2 = %s.\nInteger1 = %lld, "
     "Integer2 = %lld"},
};

constexpr Form kSystemForms[] = {
    {2, When::always, 48, TextLength::first, "a", "The system cannot find file \"%s\"."},
    {3, When::always, 64, TextLength::first, "a",
     "The directory path for file \"%s\" does not exist."},
    {5, When::always, 64, TextLength::first, "a",
     "Unable to access resource \"%s\" - access denied."},
    {6, When::always, 64, TextLength::first, "a",
     "Invaild handle given for operation to complete.\nFile name: \"%s\"."},
    {7, When::always, 64, TextLength::first, "a",
     "The storage control blocks were destroyed.\nFile \"%s\" is corrupt."},
    {8, When::always, 64, TextLength::none, "",
     "Unable to allocate enough memory to complete operation."},
    {21, When::always, 64, TextLength::none, "", "The device is not ready."},
    {32, When::hasS2, 96, TextLength::both, "ab",
     "Unable to access file - \"%s%s\".\nBecause it is being used by another process."},
    {32, When::noI1, 96, TextLength::both, "a",
     "Unable to access file - \"%s\".\nBecause it is being used by another process."},
    {32, When::always, 96, TextLength::both, "1",
     "Unable to access file %lld.\nBecause it is being used by another process."},
    {33, When::plainNoI1, 96, TextLength::both, "a",
     "Unable to access file - \"%s\".\nFile is locked by another process."},
    {33, When::noS2, 96, TextLength::both, "1",
     "Unable to access file id - %lld.\nFile is locked by another process."},
    {33, When::noI1, 96, TextLength::both, "ab",
     "Unable to access file - \"%s%s\".\nFile is locked by another process."},
    {33, When::noI2, 96, TextLength::both, "ab1",
     "Unable to access file - \"%s%s\" from %lld.\nFile is locked by another process."},
    {33, When::always, 96, TextLength::both, "ab12",
     "Unable to access file - \"%s%s\" from %lld for %lld.\nFile is locked by another process."},
    {38, When::hasS2, 96, TextLength::both, "ab",
     "Unexpected end of file in \"%s%s\".\nPossible file corruption."},
    {38, When::noI1, 96, TextLength::both, "a",
     "Unexpected end of file in \"%s\".\nPossible file corruption."},
    {38, When::always, 96, TextLength::both, "1",
     "Unexpected end of file id - %lld.\nPossible file corruption."},
    {80, When::always, 64, TextLength::first, "a",
     "Unable to create \"%s\",\nFile already exists."},
    {87, When::always, 64, TextLength::none, "", "Invaild parameter given to windows API functon."},
    {112, When::always, 96, TextLength::none, "",
     "There is not enough space on the disk to complete the operation."},
    {122, When::always, 64, TextLength::none, "",
     "The data area passed to a system call is too small."},
    {131, When::always, 96, TextLength::both, "ab",
     "An attempt was made to move the file pointer\nbefore the beginning of file:- \"%s%s\"."},
    {158, When::always, 64, TextLength::none, "",
     "Unable to unlock segment, it's already unlocked."},
    {183, When::always, 96, TextLength::first, "a", "Unable to create \"%s\", it already exists."},
    {258, When::always, 64, TextLength::none, "", "Unable to complete operation, have timed out."},
    {288, When::always, 64, TextLength::none, "", "Attempt to release mutex not owned by caller."},
    {1224, When::always, 128, TextLength::both, "ab",
     "The requested operation cannot be performed on \"%s%s\"\nwith a user-mapped section open."},
    {1392, When::always, 128, TextLength::both, "ab",
     "The file or directory is corrupted and unreadable.\n\"%s%s\""},
    {1450, When::noS1, 128, TextLength::both, "",
     "Insufficient system resources exist to complete the requested service."},
    {1450, When::noS2, 128, TextLength::both, "a",
     "Insufficient system resources exist to complete the requested service.\n\"%s\""},
    {1450, When::always, 128, TextLength::both, "ab",
     "Insufficient system resources exist to complete the requested service.\n\"%s%s\""},
    {kFallback, When::always, 128, TextLength::both, "ccab12",
     "Unknown Windows error code %lld (0x%llX).\nString1 = %s.\nString2 = %s.\nInteger1 = %lld, "
     "Integer2 = %lld"},
};

constexpr const char16_t* kKinds[] = {u"B+Tree",    u"Spatial Tree",  u"ASCII List",
                                      u"Wide List", u"Temporal Tree", u"Spatial Pattern"};

bool applies(When when, const MessageInput& in) {
  switch (when) {
    case When::always:
      return true;
    case When::noTexts:
      return !in.hasS1() && !in.hasS2();
    case When::noS1:
      return !in.hasS1();
    case When::noS2:
      return !in.hasS2();
    case When::hasS2:
      return in.hasS2();
    case When::noI1:
      return in.i1 == 0;
    case When::noI2:
      return in.i2 == 0;
    case When::someI2:
      return in.i2 != -1;
    case When::plainNoI1:
      return !in.hasS2() && in.i1 == 0;
    case When::negativeI2:
      return in.i2 < 0;
    case When::positiveI2:
      return in.i2 > 0;
  }
  return false;
}

template <std::size_t n>
const Form& formOf(const Form (&forms)[n], std::uint32_t code, const MessageInput& in) {
  for (const Form& form : forms) {
    if (form.code == code && applies(form.when, in)) return form;
  }
  return forms[n - 1];  // the fallback is the last
}

std::size_t length(const char16_t* text) { return std::char_traits<char16_t>::length(text); }

const char16_t* kindOf(std::int64_t kind) {
  const bool known = kind >= 0 && kind < static_cast<std::int64_t>(std::size(kKinds));
  return known ? kKinds[kind] : u"unknown type of";
}

std::size_t capacityOf(const Form& form, const MessageInput& in) {
  std::size_t capacity = form.capacity;
  if (form.lengths != TextLength::none) capacity += length(in.s1);
  if (form.lengths == TextLength::both) capacity += length(in.s2);
  return capacity;
}

MessageWriter::Argument argumentOf(char letter, std::uint32_t code, const MessageInput& in) {
  const auto plus = [](std::int64_t a, std::uint64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + b);
  };
  switch (letter) {
    case 'a':
      return in.s1;
    case 'b':
      return in.s2;
    case '1':
      return in.i1;
    case '2':
      return in.i2;
    case 'A':
      return plus(in.i1, 1);
    case 'B':
      return plus(in.i2, 1);
    case 'n':
      return plus(0, 0 - static_cast<std::uint64_t>(in.i2));
    case 'k':
      return kindOf(in.i1);
    default:
      return static_cast<std::int64_t>(code);
  }
}

void write(const Form& form, std::uint32_t code, const MessageInput& in, MessageWriter& out) {
  MessageWriter::Argument list[6];
  for (std::size_t i = 0; form.arguments[i] != 0; ++i) {
    list[i] = argumentOf(form.arguments[i], code, in);
  }
  out.printList(form.text, list);
}

constexpr auto kParameter = static_cast<std::uint32_t>(7);
constexpr auto kIndexKind = static_cast<std::uint32_t>(19);

void writeParameter(const MessageInput& in, MessageWriter& out) {
  out.print("One or more parameters is within an invaild range");
  if (in.hasS1()) out.print(" for table \"%s\"", in.s1);
  out.print(".");
  if (in.i1 == 0) return;
  if (in.i2 != 0) {
    out.print("\nParameter 1 = %lld, Parameter 2 = %lld.", in.i1, in.i2);
  } else {
    out.print("\nParameter 1 = %lld.", in.i1);
  }
}

}  // namespace

std::size_t ownMessageCapacity(std::uint32_t code, const MessageInput& in) {
  if (code == kParameter) return length(in.s1) + 64 + (in.i1 != 0 ? 64 : 0) + (in.i2 != 0 ? 64 : 0);
  const std::size_t kind = code == kIndexKind ? length(kindOf(in.i1)) : 0;
  return capacityOf(formOf(kOwnForms, code, in), in) + kind;
}

void writeOwnMessage(std::uint32_t code, const MessageInput& in, MessageWriter& out) {
  if (code == kParameter) return writeParameter(in, out);
  write(formOf(kOwnForms, code, in), code, in, out);
}

std::size_t systemMessageCapacity(std::uint32_t code, const MessageInput& in) {
  return capacityOf(formOf(kSystemForms, code, in), in);
}

void writeSystemMessage(std::uint32_t code, const MessageInput& in, MessageWriter& out) {
  write(formOf(kSystemForms, code, in), code, in, out);
}

}  // namespace zelta
