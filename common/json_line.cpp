#include "common/json_line.hpp"

#include <cstdio>

namespace Updater::Json {

namespace {

void AppendUtf8(std::string& out, unsigned code) {
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0 | (code >> 6));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0 | (code >> 12));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (code >> 18));
    out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (code & 0x3F));
  }
}

// Reads the text of a JSON document one token at a time.
class Reader {
 public:
  explicit Reader(const std::string& text) : text_(text) {}

  void SkipBlanks() {
    while (at_ < text_.size() && (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r')) ++at_;
  }
  bool Take(char c) {
    SkipBlanks();
    if (at_ < text_.size() && text_[at_] == c) {
      ++at_;
      return true;
    }
    return false;
  }
  bool Word(const std::string& word) {
    SkipBlanks();
    if (text_.compare(at_, word.size(), word) != 0) return false;
    at_ += word.size();
    return true;
  }
  bool AtEnd() {
    SkipBlanks();
    return at_ == text_.size();
  }

  std::optional<std::string> String() {
    if (!Take('"')) return std::nullopt;
    std::string out;
    while (at_ < text_.size()) {
      const char c = text_[at_++];
      if (c == '"') return out;
      if (static_cast<unsigned char>(c) < 0x20) return std::nullopt;
      if (c != '\\') {
        out += c;
        continue;
      }
      if (at_ >= text_.size() || !Escape(text_[at_++], out)) return std::nullopt;
    }
    return std::nullopt;
  }

  std::optional<std::int64_t> Number() {
    SkipBlanks();
    const std::size_t start = at_;
    if (at_ < text_.size() && text_[at_] == '-') ++at_;
    const std::size_t digits = at_;
    while (at_ < text_.size() && text_[at_] >= '0' && text_[at_] <= '9') ++at_;
    if (at_ == digits || at_ - digits > 18) return std::nullopt;
    return std::stoll(text_.substr(start, at_ - start));
  }

 private:
  bool Escape(char c, std::string& out) {
    switch (c) {
      case '"':
      case '\\':
      case '/':
        out += c;
        return true;
      case 'b':
        out += '\b';
        return true;
      case 'f':
        out += '\f';
        return true;
      case 'n':
        out += '\n';
        return true;
      case 'r':
        out += '\r';
        return true;
      case 't':
        out += '\t';
        return true;
      case 'u':
        return Unicode(out);
      default:
        return false;
    }
  }

  std::optional<unsigned> Hex4() {
    if (at_ + 4 > text_.size()) return std::nullopt;
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = text_[at_++];
      value <<= 4;
      if (c >= '0' && c <= '9') {
        value |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        value |= static_cast<unsigned>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        value |= static_cast<unsigned>(c - 'A' + 10);
      } else {
        return std::nullopt;
      }
    }
    return value;
  }

  // \uXXXX, a surrogate pair taken together.
  bool Unicode(std::string& out) {
    auto code = Hex4();
    if (!code || (*code >= 0xDC00 && *code < 0xE000)) return false;
    if (*code >= 0xD800 && *code < 0xDC00) {
      if (!Word("\\u")) return false;
      const auto low = Hex4();
      if (!low || *low < 0xDC00 || *low >= 0xE000) return false;
      code = 0x10000 + ((*code - 0xD800) << 10) + (*low - 0xDC00);
    }
    AppendUtf8(out, *code);
    return true;
  }

  const std::string& text_;
  std::size_t at_ = 0;
};

}  // namespace

Object& Object::Add(const std::string& key, const std::string& text) {
  members_.emplace_back(key, text);
  return *this;
}

Object& Object::Add(const std::string& key, std::int64_t number) {
  members_.emplace_back(key, number);
  return *this;
}

Object& Object::Add(const std::string& key, bool flag) {
  members_.emplace_back(key, flag);
  return *this;
}

std::string Quote(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          (void)std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

std::string Object::Text() const {
  std::string out = "{";
  for (const auto& [key, value] : members_) {
    if (out.size() > 1) out += ',';
    out += Quote(key) + ':';
    if (const auto* text = std::get_if<std::string>(&value)) {
      out += Quote(*text);
    } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
      out += std::to_string(*number);
    } else {
      out += std::get<bool>(value) ? "true" : "false";
    }
  }
  return out + "}";
}

const Value* Object::Find(const std::string& key) const {
  for (const auto& [name, value] : members_)
    if (name == key) return &value;
  return nullptr;
}

std::optional<std::string> Object::String(const std::string& key) const {
  const Value* v = Find(key);
  if (v == nullptr || !std::holds_alternative<std::string>(*v)) return std::nullopt;
  return std::get<std::string>(*v);
}

std::optional<std::int64_t> Object::Number(const std::string& key) const {
  const Value* v = Find(key);
  if (v == nullptr || !std::holds_alternative<std::int64_t>(*v)) return std::nullopt;
  return std::get<std::int64_t>(*v);
}

std::optional<bool> Object::Flag(const std::string& key) const {
  const Value* v = Find(key);
  if (v == nullptr || !std::holds_alternative<bool>(*v)) return std::nullopt;
  return std::get<bool>(*v);
}

std::optional<Object> Parse(const std::string& line) {
  Reader in(line);
  Object object;
  if (!in.Take('{')) return std::nullopt;
  if (!in.Take('}')) {
    do {
      const auto key = in.String();
      if (!key || !in.Take(':')) return std::nullopt;
      in.SkipBlanks();
      if (auto text = in.String()) {
        object.Add(*key, *text);
      } else if (in.Word("true")) {
        object.Add(*key, true);
      } else if (in.Word("false")) {
        object.Add(*key, false);
      } else if (auto number = in.Number()) {
        object.Add(*key, *number);
      } else {
        return std::nullopt;
      }
    } while (in.Take(','));
    if (!in.Take('}')) return std::nullopt;
  }
  if (!in.AtEnd()) return std::nullopt;
  return object;
}

}  // namespace Updater::Json
