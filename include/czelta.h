// Zeltastore: an embedded object database. This is the only header that an application needs.
//
// Before you start, know this:
//  - A CZELTA object is a handle to one database. It serves one thread at a time; use a handle for
//    each thread. Several handles and several processes may use one database at once.
//  - The database must lie on a local disk. Paths need a folder part.
//  - A handle must not be used on the other side of a fork: operations there fail with code 6.
//  - Every operation returns a result word: 0 is success. The low 32 bits are a code; the high 32
//    bits say whose code it is: 1 for the library's own, 2 for the codes of the Windows API, which
//    stand for failures of the operating system on every platform.
//  - GetErrorMessage() has the failure as a text, until the next call on the handle.
//  - All texts are zero-terminated UTF-16 (const char16_t*), apart from the contents of 8-bit
//    fields.
//  - Object data is reached through pointers into the table's buffer (see Object). They are valid
//    until the next operation that replaces the buffer, and never beyond EndTransaction().
//  - A process that dies leaves nothing to clean up by hand: whoever comes next repairs what it
//    finds.
//
// Records and enumerations are part of the binary interface; their layout is checked below.

#ifndef CZELTA_H
#define CZELTA_H

#include <cstdint>

#if defined(ZELTA_STATIC)
#define ZELTA_API
#elif defined(_WIN32)
#if defined(ZELTA_BUILDING)
#define ZELTA_API __declspec(dllexport)
#else
#define ZELTA_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define ZELTA_API __attribute__((visibility("default")))
#else
#define ZELTA_API
#endif

// An anonymous struct is an extension that all compilers have.
#if defined(__GNUC__)
#define ZELTA_EXTENSION __extension__
#else
#define ZELTA_EXTENSION
#endif

namespace zelta {
struct MetaData;
struct UInt32AVLTree;
}  // namespace zelta

/// A handle to one database, and the whole interface of the library.
///
/// Declare it by value. Assignment copies the handle, not the database behind it: both objects then
/// share one database, and the first destructor to run closes it for both.
class ZELTA_API CZELTA {
 public:
  /// Kinds of transaction, read modes, and the flags of reads and searches.
  enum Mode : unsigned int {
    // BeginTransaction
    TransactionShared = 33,         ///< may write, beside other shared transactions and readers
    TransactionExclusive = 34,      ///< may write and change tables; no other writer meanwhile
    TransactionRead = 35,           ///< reads only, takes no lock and never waits
    TransactionExclusiveRead = 98,  ///< reads only, and keeps all writers out

    // ReadObject, DeleteObject: which object, by its ID (index 0) or by an index
    ReadEqual = 40,         ///< the object with the given key
    ReadLess = 41,          ///< the nearest before the given key
    ReadGreater = 42,       ///< the nearest after the given key
    ReadLessEqual = 43,     ///< the given key, else the nearest before it
    ReadGreaterEqual = 44,  ///< the given key, else the nearest after it
    ReadFirst = 45,         ///< the first of all
    ReadLast = 46,          ///< the last of all
    ReadNext = 47,          ///< the one after the object read last
    ReadPrevious = 48,      ///< the one before the object read last

    // Flags to add to a read mode
    ReadNoLock = 64,      ///< don't lock the object; see its committed version and never wait
    ReadNoWait = 128,     ///< a locked object fails after a few quick tries
    ReadShortWait = 256,  ///< each wait lasts 100 ms at most, instead of 1000 ms

    // Flags of SearchIndex
    SearchKeepResults = 16,  ///< add to the results of the former search
    SearchLockResults = 32   ///< lock every object found, in a transaction that may write
  };

  /// Database-wide settings, see GetDatabaseParameter().
  enum Parameter : unsigned int {
    ParameterKeepLogFiles = 1,  ///< 1: committed transactions stay in numbered log files
    ParameterLogFileSize = 2,   ///< size in MiB at which a numbered log file is closed; 0 means 32
    ParameterLogRetention = 3,  ///< age in hours at which a log file may be deleted; 0 means 120
    ParameterFirstLogFile = 4,  ///< lowest number of a log file that may exist (read only)
    ParameterLastLogFile = 5    ///< number of the current log file (read only)
  };

  /// Types of fields. Odd codes are of fixed size, even ones variable.
  enum DataType : unsigned int {
    TypeText = 2,         ///< variable: 8-bit characters (UTF-8), zero-terminated
    TypeBoolean = 3,      ///< 1 byte, non-zero is true
    TypeWideText = 4,     ///< variable: UTF-16, zero-terminated
    TypeChar = 5,         ///< 8-bit character
    TypeShortBinary = 6,  ///< variable: 16-bit length that counts itself, then bytes
    TypeWideChar = 7,     ///< 16-bit character
    TypeBinary = 8,       ///< variable: 32-bit length that counts itself, then bytes
    TypeInt8 = 9,         ///< signed 8-bit integer
    TypeSubRecords = 10,  ///< variable: 32-bit length that counts itself, then sub-records
    TypeUInt8 = 11,       ///< unsigned 8-bit integer
    TypePoints2 = 12,     ///< variable: 32-bit length that counts itself, then x, y as int32
    TypeInt16 = 13,       ///< signed 16-bit integer
    TypePoints3 = 14,     ///< variable: 32-bit length that counts itself, then x, y, z as int32
    TypeUInt16 = 15,      ///< unsigned 16-bit integer
    TypeInt32 = 17,       ///< signed 32-bit integer
    TypeUInt32 = 19,      ///< unsigned 32-bit integer
    TypeInt64 = 21,       ///< signed 64-bit integer
    TypeUInt64 = 23,      ///< unsigned 64-bit integer
    TypeFloat = 25,       ///< IEEE 754, 32 bits
    TypeDouble = 27,      ///< IEEE 754, 64 bits
    TypeDate = 31,        ///< unsigned 32-bit count of days since 1 January 1601
    TypeDateTime = 33,    ///< unsigned 64-bit count of 100 ns since 1 January 1601
    TypeTag32 = 35,       ///< as TypeUInt32, for the application's own tagging
    TypeCharArray = 37,   ///< `fieldSize` bytes
    TypeRect2 = 39,       ///< four int32: x1, y1, x2, y2
    TypeBox3 = 41,        ///< six int32: x1, y1, z1, x2, y2, z2
    TypeTag64 = 43        ///< as TypeInt64, for the application's own tagging
  };

  /// Kinds of index.
  enum IndexKind : unsigned int {
    BPlusTree = 0,      ///< unique keys of any number of segments, in order
    SpatialTree = 1,    ///< boxes, one segment
    AsciiList = 2,      ///< words of 8-bit texts
    WideList = 3,       ///< words of 16-bit texts
    TemporalTree = 4,   ///< time spans, two segments
    SpatialPattern = 5  ///< point sets, one segment
  };

  /// Modes of a key segment, to be combined.
  enum SegmentMode : unsigned int {
    SegmentDescending = 0x001,    ///< sort high to low
    SegmentReversed = 0x002,      ///< take the text from its last character to its first
    SegmentUpperCase = 0x004,     ///< fold to upper case
    SegmentLowerCase = 0x008,     ///< fold to lower case
    SegmentWords = 0x010,         ///< a word segment of a list
    SegmentNoSpace = 0x020,       ///< drop white space
    SegmentAlphanumeric = 0x040,  ///< reduce to letters and digits
    SegmentNumber16 = 0x080,      ///< runs of digits become one 16-bit number
    SegmentNumber32 = 0x100,      ///< runs of digits become one 32-bit number
    SegmentNumber64 = 0x180       ///< runs of digits become one 64-bit number
  };

  /// Values of `Schema::Segment::segmentField` that name no field.
  enum SegmentField : int {
    ObjectIdSegment = -1,    ///< the object's ID
    EntryNumberSegment = -2  ///< the number of the entry within a multi-entry object
  };

  /// Bits of `Schema::schemaFlags`.
  enum SchemaFlag : unsigned int {
    SchemaWideObjectIds = 1,  ///< object IDs are 64 bits wide, else 32
    SchemaLockDescending = 2  ///< objects of the table are locked from high to low
  };

  /// Bits of `Schema::Index::indexFlags`; the library sets them.
  enum IndexFlag : unsigned int {
    IndexVariableKey = 1,  ///< keys differ in length
    IndexMultiEntry = 2,   ///< one object has an entry for each of its sub-records
    IndexListKind = 4      ///< an AsciiList, WideList or SpatialPattern
  };

  /// The definition of a table. All records must be writable: derived members are filled in.
  struct Schema {
    /// A field, or a sub-field of a TypeSubRecords field.
    struct Field {
      std::uint32_t fieldType;      ///< a DataType
      std::uint32_t fieldOffset;    ///< derived: bytes from the first fixed field
      std::uint32_t fieldSize;      ///< bytes; the caller's for TypeCharArray and variable types
      std::uint32_t subFieldCount;  ///< records in `subFields`, for TypeSubRecords
      const char16_t* fieldName;    ///< not null, not empty
      Field* subFields;             ///< for TypeSubRecords
    };

    /// A part of a key.
    struct Segment {
      std::int32_t
          segmentField;  ///< number of a field, behind them of a sub-field, or a SegmentField
      std::uint32_t segmentMode;  ///< SegmentMode bits
    };

    /// An index.
    struct Index {
      std::uint8_t indexFlags;     ///< derived: IndexFlag bits
      std::uint8_t indexKind;      ///< an IndexKind
      std::uint16_t segmentCount;  ///< records in `segments`
      union {
        std::uint32_t keyWords;  ///< derived: length of a key in 32-bit words
        ZELTA_EXTENSION struct {
          std::uint16_t listPrefixBytes;  ///< derived, list kinds: bytes of the fixed segments
          std::uint16_t
              maximumObjectPower;  ///< list kinds: 0, no limit; up to 50, with very large pages
        };
      };
      Segment* segments;  ///< the key's parts, most significant first
    };

    std::uint16_t lockIndex;    ///< 1-based number of the index that orders object locks; 0: by ID
    std::uint16_t indexCount;   ///< records in `indexes`
    std::uint32_t tableId;      ///< 0 asks for an ID
    std::uint32_t lockOrder;    ///< the table's place in the lock order; 0 asks for one
    std::uint32_t fieldCount;   ///< records in `fields`
    std::uint32_t schemaFlags;  ///< SchemaFlag bits
    const char16_t* tableName;  ///< without folder and extension
    const char16_t* tablePath;  ///< folder of the index file; null or empty: the database's
    Field* fields;              ///< fixed fields first, then variable ones
    Index* indexes;             ///< may be null without indexes
  };

  /// A view of the object in a table's buffer. It owns nothing.
  struct Object {
    std::uint16_t version;  ///< how often the object has been stored; 0 in a new buffer
    std::uint32_t length;   ///< bytes from `data` to the end of the object
    std::int64_t objectID;  ///< 0 for an object that was not added yet
    void* data;             ///< first byte of the fixed fields
    void* variableData;     ///< first byte of the variable fields; null in a table without any
  };

  /// A table of the database, see GetDatabaseMembers().
  struct DatabaseMember {
    std::uint32_t tableId;
    std::uint32_t lockOrder;
    const char16_t* tableName;
  };

  CZELTA();
  /// Closes the database; see CloseDatabase().
  ~CZELTA();
  /// Copies the handle: both sides share one database from then on.
  CZELTA& operator=(const CZELTA& other);

  /// The release as four 16-bit numbers, the highest first: 0x0004'0005'0009'0000 is 4.5.9.0.
  static unsigned long long Version();

  /// Stores the text of the last failure, or "No error message". The text belongs to the handle and
  /// lives until the next operation on it. `message` may be null: nothing is stored then. Always
  /// returns 0.
  unsigned long long GetErrorMessage(const char16_t** message);

  // -- Databases ------------------------------------------------------------------------------

  /// Creates a database and opens it. `path` names its control file; ".zlc" is appended if it is
  /// missing, and folders that are missing are made.
  /// Fails with Windows code 80 if the file exists, own code 2 if it would not lie on a local disk,
  /// own code 34 if the handle is in use.
  unsigned long long CreateDatabase(const char16_t* path);

  /// Opens a database, and repairs what a dead process left behind. Waits up to 600 s for a process
  /// that keeps everybody out.
  /// Fails with Windows code 2 or 3 if file or folder is missing, 5 if the caller may not read and
  /// write file and folder, 32 while processes of another PID name space have it open, 258 if the
  /// wait was in vain; own code 2 if it does not lie on a local disk, own codes 21 and 54 for a
  /// foreign or damaged control file.
  unsigned long long OpenDatabase(const char16_t* path);

  /// Ends any transaction without committing, and closes the database. Always succeeds.
  unsigned long long CloseDatabase();

  /// Lists the tables. With `members` null, `*size` receives the bytes that the buffer needs;
  /// otherwise `members` receives a record for each table, with the names stored behind the
  /// records, and `*size` the number of tables; how large the buffer is isn't looked at. Needs a
  /// transaction: in a TransactionRead, others may add tables between the two calls.
  unsigned long long GetDatabaseMembers(DatabaseMember* members, unsigned int* size);

  /// Reads a setting of the database, with or without a transaction.
  unsigned long long GetDatabaseParameter(Parameter parameter, long long* value);

  /// Changes a setting. Needs an exclusive transaction. Setting ParameterKeepLogFiles deletes the
  /// log files of the other form; setting it to 1 begins with an empty file 0, even if log files
  /// are kept already, and those are out of use then.
  unsigned long long SetDatabaseParameter(Parameter parameter, long long value);

  // -- Transactions ---------------------------------------------------------------------------

  /// Begins a transaction, waiting up to `timeout` milliseconds; 0 tries once.
  /// Fails with own code 25 or Windows code 258 when others keep the database longer than that, own
  /// code 34 if a transaction is under way on this handle.
  unsigned long long BeginTransaction(Mode mode, unsigned int timeout);

  /// Ends the transaction and closes its tables. What was not committed is gone.
  unsigned long long EndTransaction();

  /// Makes all changes since the last commit durable and visible to others. The transaction goes
  /// on. With `releaseLocks` false all objects touched stay locked, and added ones are locked.
  unsigned long long CommitTransaction(bool releaseLocks);

  /// Drops all changes since the last commit. With `releaseLocks` false, objects stay locked.
  unsigned long long AbortTransaction(bool releaseLocks);

  /// Applies a log entry of another database, as WaitNextCommit() delivered it there. Needs an
  /// exclusive transaction. `position` and `size` are in bytes.
  unsigned long long AppendTransaction(unsigned int file, long long position,
                                       unsigned int transaction, long long size, const void* entry);

  /// Waits up to `timeout` milliseconds for the next committed transaction in the numbered log
  /// files and copies its entry to `buffer`, which takes `*size` bytes.
  unsigned long long WaitNextCommit(unsigned int* file, long long* position,
                                    unsigned int* transaction, long long* size, void* buffer,
                                    unsigned int timeout);

  // -- Tables ---------------------------------------------------------------------------------

  /// Enters an existing table file, which lies in the database's folder, as a table. `table` and
  /// `lockOrder` 0 ask for assignment; `directory`, the folder of the index file, may be null. An
  /// index file that lies there need not fit the table: it is built anew, by the first transaction
  /// that may write and uses an index. Needs an exclusive transaction. Fails with own codes 9, 10,
  /// 11 when name, ID or order are in use, own codes 22 and 55 for a foreign or damaged file,
  /// Windows code 80 if what bears the name of the index file is none.
  unsigned long long AddTable(const char16_t* fileName, unsigned int table,
                              const char16_t* directory, unsigned int lockOrder);

  /// Creates a table and leaves it open. `table`, which may be null, receives its ID. The schema's
  /// records must be writable: derived members (offsets, sizes, key lengths) are filled in. Needs
  /// an exclusive transaction. Fails with own codes 9, 10, 11 when name, ID or order are in use,
  /// own codes 12 to 20, 26, 42, 61 for a broken rule of the schema, Windows code 80 if the table's
  /// file exists, or what bears the name of its index file is none.
  unsigned long long CreateTable(const Schema* schema, unsigned int* table);

  /// Opens a table for this transaction; does nothing if it is open. Own code 30: no such table.
  unsigned long long OpenTable(unsigned int table);

  /// Closes a table, unless the transaction has locks or changes in it: then it stays open.
  unsigned long long CloseTable(unsigned int table);

  /// Takes a table out of the database, and with `deleteFiles` deletes its files; what bears the
  /// name of its table or index file and is none stays. Needs an exclusive transaction. Own code
  /// 10: no such table; 30: there are no tables at all.
  unsigned long long RemoveTable(unsigned int table, bool deleteFiles);

  /// Copies the schema of an open table into a buffer of the caller's. With `schema` null, `*size`
  /// receives the bytes that the buffer needs. The capacity of the buffer is not checked.
  unsigned long long GetTableSchema(unsigned int table, Schema* schema, unsigned int* size);

  /// Gives a table another schema and converts its objects. `fieldMap` has, for each new field, the
  /// number of the old one. Needs an exclusive transaction without changes.
  unsigned long long SetTableSchema(unsigned int table, const Schema* schema,
                                    const unsigned int* fieldMap, Parameter parameter);

  // -- The object buffer ------------------------------------------------------------------------
  //
  // Behind the object in the buffer stand 8 bytes of zero: a text in a damaged file that has lost
  // its terminator ends there.

  /// Makes an empty object in the table's buffer, with `size` bytes (zeroes) beyond the smallest
  /// form of its variable fields. `object` may be null.
  unsigned long long NewObject(unsigned int table, Object* object, unsigned int size);

  /// Finds a variable field of the object in the buffer. `field` counts from the first variable
  /// field. `value` receives the address of its encoding; null if the object does not hold it.
  /// `value` and `object` may be null.
  unsigned long long GetVariableField(unsigned int table, unsigned int field, void** value,
                                      Object* object);

  /// Finds a sub-field in a row of a TypeSubRecords field; rows count from 0.
  unsigned long long GetVariableField(unsigned int table, unsigned int field, unsigned int subField,
                                      unsigned int subRecord, void** value, Object* object);

  /// Clears all variable fields and gives them `size` zero bytes beyond the smallest form.
  unsigned long long PutVariableValues(unsigned int table, Object* object, unsigned int size);

  /// Replaces `count` variable fields, from number `field` on, by the encoded values that stand one
  /// after the other in `values`; with `values` null the fields become empty. `valuesSize` is the
  /// number of bytes at `values`; with 0 they are trusted to be well formed. Own code 46: a value
  /// or the object in the buffer is malformed; the buffer is unchanged then.
  unsigned long long PutVariableValues(unsigned int table, const void* values,
                                       unsigned int valuesSize, unsigned int field,
                                       unsigned int count, Object* object);

  // -- Objects --------------------------------------------------------------------------------

  /// Adds the object in the table's buffer. `objectID` 0 asks for an ID, any other value for just
  /// that one. The table file has a place for each ID up to the highest one in use: an ID far above
  /// the others costs 12 bytes for each one below it, from the commit on and until the IDs at the
  /// top are deleted (an ID of a thousand million: 12 GB). Fails with own code 37 if a unique key
  /// exists, 36 if the ID is in use, 7 if it is negative or wider than the table's IDs, 45, 46, 66
  /// if the object is malformed.
  unsigned long long AddObject(unsigned int table, Object* object, long long objectID);

  /// Stores the changed object of the buffer, which must have been read with a lock or added in
  /// this transaction. Own code 39: it was not.
  unsigned long long RewriteObject(unsigned int table, Object* object);

  /// Reads an object into the table's buffer. `index` 0 finds it by ID: `key` points at a 32-bit or
  /// 64-bit ID, as wide as the table's IDs are. A B+Tree index takes the values of its segments,
  /// packed in their order without padding. Other kinds walk the results of SearchIndex() by ID:
  /// `key` is an ID then, as wide as the table's IDs are, of which the lower 32 bits count (but for
  /// those of an outermost `not`), and ReadEqual tells whether it is among them; own code 40 if the
  /// last search was of another index.
  /// `entry`, which may be null, receives the number of the entry whose key matched. A writing
  /// transaction locks the object unless ReadNoLock is set. Fails with own code 32 if there is
  /// none, 27 or 67 if it stays locked by others.
  unsigned long long ReadObject(unsigned int table, Mode mode, Object* object, unsigned int index,
                                const void* key, unsigned int* entry);
  /// Reads the object with the given ID. One that is wider than the table's IDs is not there.
  unsigned long long ReadObject(unsigned int table, long long objectID, Object* object);
  /// Reads the object with the given ID; only the flags of `mode` count.
  unsigned long long ReadObject(unsigned int table, long long objectID, Mode mode, Object* object);

  /// Deletes an object, found as ReadObject() does. With `index` 0 and a null key the object in the
  /// buffer is deleted. The deleted object stays in the buffer.
  unsigned long long DeleteObject(unsigned int table, Mode mode, Object* object, unsigned int index,
                                  const void* key, unsigned int* entry);
  /// Deletes the object with the given ID; 0 means the object in the buffer. One that is wider than
  /// the table's IDs is not there: own code 32.
  unsigned long long DeleteObject(unsigned int table, long long objectID, Object* object);

  /// Undoes what this transaction did to an object: an add, a rewrite, a delete or a lock.
  /// `objectID` 0 means the object in the buffer. With `unlock` true its lock is released. Fails
  /// with own code 31 if nothing was done to the object, 32 if the ID is wider than the table's.
  unsigned long long RestoreObject(unsigned int table, long long objectID, bool unlock);

  // -- Searching ------------------------------------------------------------------------------

  /// Searches an index (from 1) and leaves the IDs of the objects found in the table, for
  /// ReadObject() on the same index to walk. Of `mode` only SearchKeepResults and SearchLockResults
  /// count; CZELTA::Mode{} is neither. `key`, packed without padding; ends and corners may come in
  /// either order:
  ///  - SpatialTree: int32 lower corner, then upper: x1, y1, x2, y2 or x1, y1, z1, x2, y2, z2
  ///  - TemporalTree: begin, end; uint32 each for TypeDate, uint64 each for TypeDateTime
  ///  - AsciiList, WideList: the values of the prefix fields as they are stored; unused without any
  ///
  /// `search` is the expression of a list, zero-terminated, of 8-bit characters for an AsciiList and
  /// of 16-bit ones for a WideList (docs/searching.md); else unused. `count`, which may be null,
  /// receives the number of objects found; for an outermost `not` the table's highest ID less the
  /// IDs that do not match, so that deleted ones count; with SearchKeepResults that of all results.
  /// Fails with own code 7 for a null key or expression that is needed, 19 if the index is not
  /// searched in this way, 63 for a bad expression: the results of the former search stay then. 27:
  /// others keep objects or the table locked.
  unsigned long long SearchIndex(unsigned int table, unsigned int index, const void* key,
                                 const void* search, Mode mode, long long* count);
  /// The form for boxes and time spans, with keys as above, and for patterns, whose `key` is a uint32
  /// length in bytes that counts itself, then x, y or x, y, z as int32 of each point. `tolerance`, of
  /// patterns alone, is along each axis; write 0u, since a plain 0 fits both forms. With
  /// SearchKeepResults `count` is that of this search alone; of a pattern it is the sum over its
  /// points. Own code 7 also for a length below 5.
  unsigned long long SearchIndex(unsigned int table, unsigned int index, const void* key,
                                 unsigned int tolerance, Mode mode, long long* count);

 private:
  zelta::MetaData* metaData_;
  zelta::UInt32AVLTree* tables_;
};

#undef ZELTA_EXTENSION

/// Combines a mode and flags.
constexpr CZELTA::Mode operator|(CZELTA::Mode a, CZELTA::Mode b) {
  return static_cast<CZELTA::Mode>(static_cast<unsigned int>(a) | static_cast<unsigned int>(b));
}

static_assert(sizeof(void*) != 8 ||
                  (sizeof(CZELTA::Schema) == 56 && sizeof(CZELTA::Schema::Field) == 32 &&
                   sizeof(CZELTA::Schema::Index) == 16 && sizeof(CZELTA::Schema::Segment) == 8 &&
                   sizeof(CZELTA::Object) == 32 && sizeof(CZELTA::DatabaseMember) == 16 &&
                   sizeof(CZELTA) == 16),
              "the records are part of the binary interface");

#endif  // CZELTA_H
