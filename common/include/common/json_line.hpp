// One flat JSON object per line: string, integer and boolean members only,
// no nesting. The format of a recorded update (see common/record.hpp), small
// enough that a session log stays readable with grep and a text editor.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Updater::Json {

using Value = std::variant<std::string, std::int64_t, bool>;

// Members in the order they were added; a key added twice keeps both.
class Object {
 public:
  Object& Add(const std::string& key, const std::string& text);
  Object& Add(const std::string& key, const char* text) { return Add(key, std::string(text)); }
  Object& Add(const std::string& key, std::int64_t number);
  Object& Add(const std::string& key, int number) { return Add(key, std::int64_t{number}); }
  Object& Add(const std::string& key, bool flag);

  // `{"key":value,...}` without a line end; strings escaped as JSON wants.
  std::string Text() const;

  bool Has(const std::string& key) const { return Find(key) != nullptr; }
  // The member's value when it is there and of that type.
  std::optional<std::string> String(const std::string& key) const;
  std::optional<std::int64_t> Number(const std::string& key) const;
  std::optional<bool> Flag(const std::string& key) const;

 private:
  const Value* Find(const std::string& key) const;
  std::vector<std::pair<std::string, Value>> members_;
};

// `text` as a JSON string literal, quotes included.
std::string Quote(const std::string& text);

// Parses one line written by Object::Text() (blanks between tokens allowed).
// nullopt for anything else: nested values, floats, null, trailing text.
std::optional<Object> Parse(const std::string& line);

}  // namespace Updater::Json
