// The list of the workbench's tools: each tool unit registers its class once, and the menus, the drop
// actions and the command line find it by key ("GraphCalculator") or class name, in any case.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

class TProjectDialogForm;

/// One registered tool.
struct TToolEntry {
  std::string Key;       ///< class name without the leading "T" and the trailing "Form"
  std::string ClassName; ///< "TGraphCalculatorForm"
  std::string Caption;   ///< the dialog name, "Graph Calculator"
  std::string Folder;    ///< menu group: "spectral", "multivariate" or "image"
  std::function<std::unique_ptr<TProjectDialogForm>()> Create;
};

class TToolRegistry {
public:
  using TFactory = std::function<std::unique_ptr<TProjectDialogForm>()>;

  /// The registry of the process.
  static TToolRegistry& Instance();

  /// Adds a tool. An empty class name, a missing factory or a key that is taken is a programming error
  /// (OrvexException).
  void Register(const std::string& className, const std::string& caption, const std::string& folder,
                TFactory create);
  /// By key or class name, in any case; null when no tool has it.
  const TToolEntry* Find(const std::string& keyOrClassName) const;
  /// In the order of registration.
  const std::vector<TToolEntry>& GetTools() const { return FTools; }
  std::vector<std::string> GetKeys() const;
  void Clear() { FTools.clear(); }

  /// "TGraphCalculatorForm" -> "GraphCalculator".
  static std::string KeyFromClassName(const std::string& className);

private:
  std::vector<TToolEntry> FTools;
};
