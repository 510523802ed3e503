// Forms of tables: what the seeds are made of, and what the target of random calls creates.

#ifndef ZELTA_TESTS_FUZZ_SCHEMAS_H
#define ZELTA_TESTS_FUZZ_SCHEMAS_H

#include <cstdint>
#include <initializer_list>
#include <string>

#include "czelta.h"

namespace zelta::fuzz {

enum class Form { fixed, wide, variable, rows, bare, types, shapes, words };
inline constexpr Form kForms[] = {Form::fixed, Form::wide,  Form::variable, Form::rows,
                                  Form::bare,  Form::types, Form::shapes,   Form::words};

/// A schema in records of its own.
class FormSchema {
 public:
  FormSchema(Form form, const char16_t* name, const char16_t* indexFolder = nullptr);
  FormSchema(const FormSchema&) = delete;
  FormSchema& operator=(const FormSchema&) = delete;

  CZELTA::Schema schema{};
  CZELTA::Schema::Field fields[24]{};
  CZELTA::Schema::Field subFields[2]{};
  CZELTA::Schema::Segment segments[6][3]{};
  CZELTA::Schema::Index indexes[6]{};

 private:
  void field(std::uint32_t type, std::uint32_t size = 0);
  void index(std::initializer_list<CZELTA::Schema::Segment> parts,
             CZELTA::IndexKind kind = CZELTA::BPlusTree);
};

/// The bytes behind the ID of an object of a form: what `number` makes of it, with `length` bytes
/// of text if there is one, or so many points. Different numbers have different keys.
[[nodiscard]] std::string contentOf(Form form, std::uint32_t number, std::size_t length);

/// Adds the object whose content is given; 0 or the result word of what failed.
unsigned long long addContent(CZELTA& handle, unsigned int table, Form form,
                              const std::string& content, long long id);
/// Puts another content into the object in the buffer.
unsigned long long putContent(CZELTA& handle, unsigned int table, Form form,
                              const std::string& content, CZELTA::Object& object);

}  // namespace zelta::fuzz

#endif  // ZELTA_TESTS_FUZZ_SCHEMAS_H
