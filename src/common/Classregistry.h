// A registry of factories by class name, in registration order: data classes and viewer classes are
// made from the names stored in files.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

template <class TBase>
class TClassRegistry {
public:
  using TFactory = std::function<std::unique_ptr<TBase>()>;

  /// Registers a factory; a name registered already is ignored.
  void Register(const std::string& className, TFactory factory) {
    std::lock_guard lock(FLock);
    for (const auto& entry : FEntries)
      if (entry.first == className) return;
    FEntries.emplace_back(className, std::move(factory));
  }

  /// A new object of the class, or null when the name is unknown.
  std::unique_ptr<TBase> Create(const std::string& className) const {
    TFactory factory;
    {
      std::lock_guard lock(FLock);
      for (const auto& entry : FEntries)
        if (entry.first == className) factory = entry.second;
    }
    return factory ? factory() : nullptr;
  }

  void Clear() {
    std::lock_guard lock(FLock);
    FEntries.clear();
  }

  std::vector<std::string> Names() const {
    std::lock_guard lock(FLock);
    std::vector<std::string> names;
    for (const auto& entry : FEntries) names.push_back(entry.first);
    return names;
  }

private:
  mutable std::mutex FLock;
  std::vector<std::pair<std::string, TFactory>> FEntries;
};
