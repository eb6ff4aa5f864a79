#include "project/Toolregistry.h"

#include "common/OrvexException.h"

#include <algorithm>
#include <cctype>

namespace {

bool EqualNoCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
         });
}

} // namespace

TToolRegistry& TToolRegistry::Instance() {
  static TToolRegistry registry;
  return registry;
}

std::string TToolRegistry::KeyFromClassName(const std::string& className) {
  std::string key = className;
  if (key.size() > 1 && key[0] == 'T' && std::isupper(static_cast<unsigned char>(key[1]))) key.erase(0, 1);
  const std::string suffix = "Form";
  if (key.size() > suffix.size() && key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0)
    key.erase(key.size() - suffix.size());
  return key;
}

void TToolRegistry::Register(const std::string& className, const std::string& caption,
                             const std::string& folder, TFactory create) {
  if (className.empty() || !create)
    throw OrvexException("TToolRegistry::Register(): a tool needs a class name and a factory");
  const std::string key = KeyFromClassName(className);
  if (Find(key) != nullptr)
    throw OrvexException("TToolRegistry::Register(): the tool key \"" + key + "\" is registered already");
  FTools.push_back(TToolEntry{key, className, caption, folder, std::move(create)});
}

const TToolEntry* TToolRegistry::Find(const std::string& keyOrClassName) const {
  for (const TToolEntry& tool : FTools)
    if (EqualNoCase(tool.Key, keyOrClassName) || EqualNoCase(tool.ClassName, keyOrClassName)) return &tool;
  return nullptr;
}

std::vector<std::string> TToolRegistry::GetKeys() const {
  std::vector<std::string> keys;
  keys.reserve(FTools.size());
  for (const TToolEntry& tool : FTools) keys.push_back(tool.Key);
  return keys;
}
