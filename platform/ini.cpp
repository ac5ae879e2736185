#include "platform/ini.h"

#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <charconv>
#include <exception>
#include <locale>
#include <sstream>

#include "platform/fs.h"

namespace deskline::platform {
namespace {

using Tree = boost::property_tree::ptree;

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// The parser trims with the stream's locale; the classic one keeps UTF-8 bytes intact.
bool IsBlank(char c) { return std::isspace(c, std::locale::classic()); }

bool HasOuterBlanks(std::string_view text) {
  return !text.empty() && (IsBlank(text.front()) || IsBlank(text.back()));
}

bool HasLineBreakOrNul(std::string_view text) {
  return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

bool IsQuoted(std::string_view text) {
  return text.size() >= 2 && text.front() == '"' && text.back() == '"';
}

bool IsStorableSection(std::string_view name) {
  return !name.empty() && !HasLineBreakOrNul(name) && !HasOuterBlanks(name) &&
         name.find(']') == std::string_view::npos;
}

bool IsStorableKey(std::string_view name) {
  return !name.empty() && !HasLineBreakOrNul(name) && !HasOuterBlanks(name) &&
         name.find('=') == std::string_view::npos && name.front() != ';' &&
         name.front() != '#' && name.front() != '[';
}

}  // namespace

struct IniDocument::Impl {
  Tree tree;
};

IniDocument::IniDocument() : impl_(std::make_unique<Impl>()) {}
IniDocument::~IniDocument() = default;
IniDocument::IniDocument(IniDocument&&) noexcept = default;
IniDocument& IniDocument::operator=(IniDocument&&) noexcept = default;

bool IniDocument::Load(std::string_view text) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  impl_->tree.clear();
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  try {
    std::istringstream stream{std::string(text)};
    stream.imbue(std::locale::classic());
    Tree parsed;
    boost::property_tree::read_ini(stream, parsed);
    impl_->tree.swap(parsed);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

std::optional<std::string> IniDocument::Get(std::string_view section,
                                            std::string_view key) const {
  if (!impl_) return std::nullopt;
  // find() matches the whole name; a path lookup would split it at dots.
  const auto section_it = impl_->tree.find(std::string(section));
  // A node without children at the top is a key outside any section, not a section.
  if (section_it == impl_->tree.not_found() || section_it->second.empty()) return std::nullopt;
  const auto key_it = section_it->second.find(std::string(key));
  if (key_it == section_it->second.not_found() || !key_it->second.empty()) return std::nullopt;
  const std::string& value = key_it->second.data();
  if (IsQuoted(value)) return value.substr(1, value.size() - 2);
  return value;
}

bool IniDocument::Set(std::string_view section, std::string_view key, std::string_view value) {
  if (!impl_) impl_ = std::make_unique<Impl>();
  if (!IsStorableSection(section) || !IsStorableKey(key) || HasLineBreakOrNul(value)) {
    return false;
  }
  std::string stored(value);
  if (HasOuterBlanks(value) || IsQuoted(value)) stored = "\"" + stored + "\"";

  try {
    Tree& root = impl_->tree;
    const std::string section_name(section);
    auto section_it = root.find(section_name);
    Tree* section_tree;
    if (section_it == root.not_found()) {
      section_tree = &root.push_back(Tree::value_type(section_name, Tree()))->second;
    } else if (section_it->second.empty()) {
      return false;
    } else {
      section_tree = &section_it->second;
    }
    const std::string key_name(key);
    auto key_it = section_tree->find(key_name);
    if (key_it == section_tree->not_found()) {
      section_tree->push_back(Tree::value_type(key_name, Tree(stored)));
    } else {
      key_it->second.put_value(stored);
    }
    return true;
  } catch (const std::exception&) {
    return false;  // allocation failure; the tree may hold an empty section, which is harmless
  }
}

std::optional<std::string> IniDocument::Serialize() const {
  if (!impl_) return std::string();
  try {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    boost::property_tree::write_ini(stream, impl_->tree);
    std::string text = stream.str();
    // Load drops one leading byte order mark; a first name that itself begins with one keeps
    // it only behind a mark of its own.
    if (text.starts_with(kByteOrderMark)) text.insert(0, kByteOrderMark);
    return text;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<int> ReadIniInt(const std::string& path, const std::string& section,
                              const std::string& key) {
  const std::optional<std::string> text = ReadWholeFile(path);
  if (!text) return std::nullopt;
  IniDocument document;
  if (!document.Load(*text)) return std::nullopt;
  const std::optional<std::string> value = document.Get(section, key);
  if (!value) return std::nullopt;

  std::string_view digits(*value);
  while (!digits.empty() && IsBlank(digits.front())) digits.remove_prefix(1);
  while (!digits.empty() && IsBlank(digits.back())) digits.remove_suffix(1);
  // from_chars takes '-' but not '+'; a sign followed by another sign is still refused.
  if (!digits.empty() && digits.front() == '+') {
    digits.remove_prefix(1);
    if (!digits.empty() && digits.front() == '-') return std::nullopt;
  }
  int result = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), result);
  if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
  return result;
}

}  // namespace deskline::platform
