// orvex tags / orvex validate: look into any tag file.
#include "CliCommon.h"
#include "common/Safewrite.h"
#include "common/Saveandload.h"
#include "common/Tagcontrol.h"
#include "common/Tagvalidate.h"

#include <charconv>
#include <cstdio>
#include <iostream>
#include <memory>
#include <sstream>

#include <nlohmann/json.hpp>

namespace orvexcli {
namespace {

constexpr int64_t kShownValues = 8;
constexpr int kMaxDepth = 1000;

std::string Quote(const std::string& s) {
  return nlohmann::ordered_json(s).dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

// The shortest text that reads back to the same float.
std::string FormatFloat(float v) {
  char buffer[64];
  const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, v);
  return error == std::errc() ? std::string(buffer, end) : std::string("nan");
}

// One value tag read from the file: the first values as JSON, the total count.
struct TValuePreview {
  nlohmann::ordered_json Values = nlohmann::ordered_json::array();
  int64_t Count = 0;
  bool Broken = false;
};

TValuePreview ReadPreview(TFileHandle file, const TTagControl& tag) {
  TValuePreview preview;
  const int64_t length = tag.End() - tag.Begin();
  FileSeek(file, tag.Begin(), TSeekOrigin::Begin);
  if (tag.Kind() == TTagKind::AnsiString) {
    int64_t pos = tag.Begin();
    while (pos + 4 <= tag.End()) {
      int32_t len = 0;
      FileSeek(file, pos, TSeekOrigin::Begin);
      if (ReadAllBytes(file, &len, 4) != 4 || len < 0 || len > tag.End() - pos - 4) {
        preview.Broken = true;
        break;
      }
      if (preview.Count < kShownValues) {
        std::string bytes(static_cast<size_t>(std::min<int32_t>(len, 4096)), '\0');
        ReadAllBytes(file, bytes.data(), static_cast<int64_t>(bytes.size()));
        preview.Values.push_back(Cp1252ToUtf8(bytes.substr(0, bytes.find('\0'))));
      }
      ++preview.Count;
      pos += 4 + len;
    }
    return preview;
  }
  const int size = TagKindElementSize(tag.Kind());
  if (size == 0) {
    preview.Broken = true;
    return preview;
  }
  preview.Count = length / size;
  const int64_t shown = std::min(preview.Count, kShownValues);
  std::vector<uint8_t> raw(static_cast<size_t>(shown * size));
  if (ReadAllBytes(file, raw.data(), static_cast<int64_t>(raw.size())) != static_cast<int64_t>(raw.size())) {
    preview.Broken = true;
    return preview;
  }
  for (int64_t i = 0; i < shown; ++i) {
    const uint8_t* p = raw.data() + i * size;
    switch (tag.Kind()) {
    case TTagKind::Double:
      preview.Values.push_back(*reinterpret_cast<const double*>(p));
      break;
    case TTagKind::Float:
      preview.Values.push_back(*reinterpret_cast<const float*>(p));
      break;
    case TTagKind::Int64:
      preview.Values.push_back(*reinterpret_cast<const int64_t*>(p));
      break;
    case TTagKind::Int:
      preview.Values.push_back(*reinterpret_cast<const int32_t*>(p));
      break;
    case TTagKind::Word:
      preview.Values.push_back(*reinterpret_cast<const uint16_t*>(p));
      break;
    case TTagKind::Byte:
      preview.Values.push_back(*p);
      break;
    case TTagKind::Bool:
      preview.Values.push_back(*p != 0);
      break;
    default:
      break;
    }
  }
  return preview;
}

std::string FormatValue(const nlohmann::ordered_json& v, TTagKind kind) {
  if (v.is_string()) return Quote(v.get<std::string>());
  if (v.is_boolean()) return v.get<bool>() ? "true" : "false";
  if (kind == TTagKind::Double) return FormatNumber(v.get<double>());
  if (kind == TTagKind::Float) return FormatFloat(static_cast<float>(v.get<double>()));
  return v.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

class TTreePrinter {
public:
  TTreePrinter(TFileHandle file, bool json, int maxDepth) : FFile(file), FJson(json), FMaxDepth(maxDepth) {}

  // Prints the tag whose header is at pos; returns its End or -1 when the file is damaged there.
  int64_t Print(int64_t pos, int64_t limit, int depth, nlohmann::ordered_json* out) {
    TTagControl tag;
    std::string name;
    FileSeek(FFile, pos, TSeekOrigin::Begin);
    if (tag.ReadTag(FFile, name) < 1 || tag.Begin() <= pos || tag.End() < tag.Begin() || tag.End() > limit ||
        depth > kMaxDepth) {
      FDamage = "damaged tag header at offset " + std::to_string(pos);
      return -1;
    }
    const std::string indent(static_cast<size_t>(2 * depth), ' ');
    nlohmann::ordered_json node = {{"name", name}, {"kind", TagKindName(tag.Kind())}};
    if (tag.Kind() == TTagKind::TagList) {
      if (!FJson) std::cout << indent << name << "\n";
      if (depth < FMaxDepth) {
        nlohmann::ordered_json children = nlohmann::ordered_json::array();
        int64_t child = tag.Begin();
        while (child < tag.End()) {
          nlohmann::ordered_json childNode;
          const int64_t next = Print(child, tag.End(), depth + 1, &childNode);
          if (next < 0) break;
          children.push_back(std::move(childNode));
          child = next;
        }
        node["children"] = std::move(children);
      }
    } else {
      const TValuePreview preview = ReadPreview(FFile, tag);
      node["count"] = preview.Count;
      node["values"] = preview.Values;
      if (!FJson) {
        std::string text;
        if (preview.Broken && preview.Values.empty()) {
          text = "<" + TagKindName(tag.Kind()) + ", " + std::to_string(tag.End() - tag.Begin()) + " bytes>";
        } else if (preview.Count == 1) {
          text = FormatValue(preview.Values[0], tag.Kind());
        } else {
          text = "[";
          for (size_t i = 0; i < preview.Values.size(); ++i)
            text += (i ? ", " : "") + FormatValue(preview.Values[i], tag.Kind());
          if (preview.Count > static_cast<int64_t>(preview.Values.size())) text += ", ...";
          text += "] (" + std::to_string(preview.Count) + ")";
        }
        std::cout << indent << name << " = " << text << "\n";
      }
    }
    if (out) *out = std::move(node);
    return tag.End();
  }

  const std::string& Damage() const { return FDamage; }

private:
  TFileHandle FFile;
  bool FJson;
  int FMaxDepth;
  std::string FDamage;
};

int RunTags(const std::string& fileName, bool json, int depth) {
  ClearLastFileError();
  const TFileHandle file = OpenFileForReading(fileName);
  if (file == kInvalidFileHandle)
    throw CliError(kExitUsage, "cannot open '" + fileName + "': " + FileErrorReason(LastFileError()));
  std::string identification;
  LoadIdentificationFromFile(file, identification);
  TTreePrinter printer(file, json, depth < 0 ? kMaxDepth : depth);
  nlohmann::ordered_json root;
  const int64_t size = FileSize(file);
  const int64_t end = size >= 8 ? printer.Print(8, size, 0, &root) : -1;
  CloseFile(file);
  if (json)
    std::cout << nlohmann::ordered_json{{"identification", identification}, {"root", root}}.dump(
                     2, ' ', false, nlohmann::ordered_json::error_handler_t::replace)
              << "\n";
  if (end < 0)
    throw CliError(kExitFailure,
                   "'" + fileName + "' is not a tag file or is damaged: " +
                       (printer.Damage().empty() ? std::string("file too short") : printer.Damage()));
  return kExitOk;
}

int RunValidate(const std::string& fileName, bool json) {
  const TTagValidationResult result = ValidateTagFile(fileName);
  if (!result.Readable) throw CliError(kExitUsage, "cannot open '" + fileName + "': " + result.Problem);
  if (json) {
    nlohmann::ordered_json out = {{"file", fileName},
                                  {"valid", result.Valid},
                                  {"identification", result.Identification},
                                  {"tags", result.TagCount}};
    if (!result.Valid) {
      out["problem"] = result.Problem;
      out["offset"] = result.Offset;
      out["path"] = result.Path;
    }
    std::cout << out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
    return result.Valid ? kExitOk : kExitFailure;
  }
  if (result.Valid) {
    std::cout << "valid: identification \"" << result.Identification << "\", " << result.TagCount
              << " tags\n";
    return kExitOk;
  }
  std::cerr << "invalid: " << result.Problem << " at offset " << result.Offset;
  if (!result.Path.empty()) std::cerr << " in tag " << Quote(result.Path);
  std::cerr << "\n";
  return kExitFailure;
}

// A small tag file with one tag of every kind, nested lists and a long array.
TTagError WriteExampleTags(TFileHandle file) {
  TTagError result = SaveIdentificationToFile(file, "ORX_EXMP");
  TTagControl root, list, t;
  auto keep = [&result](TTagError r) { result = result < 1 ? result : r; };
  keep(root.WriteTag(file, "Example", TTagKind::TagList));
  keep(t.SaveAnsiStringTag(file, "Caption", "Example of a tag file (5 \u00b5m)"));
  keep(t.SaveIntTag(file, "Version", 1));
  keep(list.WriteTag(file, "Values", TTagKind::TagList));
  std::vector<float> spectrum(1024);
  for (size_t i = 0; i < spectrum.size(); ++i) spectrum[i] = static_cast<float>(i % 97) * 0.5f;
  keep(t.SaveFloatTag(file, "Spectrum", spectrum.data(), static_cast<int64_t>(spectrum.size())));
  const double excitation = 532.0;
  keep(t.SaveDoubleAndFloatTag(file, "Excitation", &excitation, 1));
  keep(t.SaveInt64Tag(file, "Large", int64_t(1) << 40));
  const uint16_t words[3] = {1, 2, 65535};
  keep(t.SaveWordTag(file, "Words", words, 3));
  const uint8_t bytes[4] = {0, 127, 128, 255};
  keep(t.SaveByteTag(file, "Bytes", bytes, 4));
  keep(t.SaveBoolTag(file, "Visible", true));
  keep(list.CloseWriteTag(file));
  keep(t.SaveStringList(file, "Names", {"first", "second", "third"}));
  keep(t.SaveList(file, "IDs", {3, 5, 8}));
  keep(root.CloseWriteTag(file));
  return result;
}

int WriteExampleTagFile(const std::string& fileName) {
  std::string error;
  if (WriteFileSafely(fileName, WriteExampleTags, &error) < 1) throw CliError(kExitFailure, error);
  std::cout << "written: " << fileName << "\n";
  return kExitOk;
}

} // namespace

void AddTagCommands(CLI::App& app, CliContext& ctx) {
  // Option storage lives as long as the callbacks that capture it.
  struct TTagsOptions {
    std::string File;
    bool Json = false;
    int Depth = -1;
  };
  auto tagsOptions = std::make_shared<TTagsOptions>();
  auto* tags = app.add_subcommand("tags", "Print the tag tree of a tag file");
  tags->add_option("FILE", tagsOptions->File, "Tag file")->required();
  tags->add_flag("--json", tagsOptions->Json, "Machine-readable tree on stdout");
  tags->add_option("--depth", tagsOptions->Depth, "Levels below the root to show")->check(NonNegative());
  SetCommandAction(
      tags, ctx, [tagsOptions] { return RunTags(tagsOptions->File, tagsOptions->Json, tagsOptions->Depth); });

  auto exampleFile = std::make_shared<std::string>();
  auto* example = app.add_subcommand("example-tags", "Write a small tag file with one tag of every kind");
  example->add_option("-o,--output", *exampleFile, "File to write")->required();
  SetCommandAction(example, ctx, [exampleFile] { return WriteExampleTagFile(*exampleFile); });

  struct TValidateOptions {
    std::string File;
    bool Json = false;
  };
  auto validateOptions = std::make_shared<TValidateOptions>();
  auto* validate = app.add_subcommand("validate", "Check the container invariants of a tag file");
  validate->add_option("FILE", validateOptions->File, "Tag file")->required();
  validate->add_flag("--json", validateOptions->Json, "Machine-readable result on stdout");
  SetCommandAction(validate, ctx,
                   [validateOptions] { return RunValidate(validateOptions->File, validateOptions->Json); });
}

} // namespace orvexcli
