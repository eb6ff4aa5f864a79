// The text export filters of images and graphs.
#include "exchange/Exportfilterascii.h"

#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dimage.h"
#include "data/Dinterpretation.h"
#include "exchange/Exportgraphdata.h"

#include <charconv>

namespace {

std::string OneLine(std::string text) {
  for (char& c : text)
    if (c == '\n' || c == '\r') c = ' ';
  return text;
}

std::string ValueUnit(const IDataProject& project, int32_t zInterpretationID) {
  const auto* z = dynamic_cast<const TDInterpretation*>(project.FindData(zInterpretationID));
  return z ? z->UnitString(z->GetUnitIndex()) : std::string("a.u.");
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// TExportFilterASCII

const TParameterTable& TExportFilterASCII::ParameterTable() {
  static const TParameterTable table = [] {
    TParameterTable t;
    t.AddList("Separator", "Separator", 0, {{"Tab", 0}, {"Comma", 1}, {"Semicolon", 2}, {"Blank", 3}});
    t.AddBool("Header", "Header Lines", true);
    return t;
  }();
  return table;
}

void TExportFilterASCII::GetFileFilter(std::string& filter, std::string& extension) const {
  filter = "Text Files|*.txt";
  extension = ".txt";
}

void TExportFilterASCII::AppendFloat(std::string& line, float value) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::general, 9);
  line.append(buffer, result.ptr);
}

void TExportFilterASCII::AppendDouble(std::string& line, double value) {
  char buffer[32];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
  line.append(buffer, result.ptr);
}

char TExportFilterASCII::Separator() const {
  switch (GetIntParameter("Separator")) {
  case 1:
    return ',';
  case 2:
    return ';';
  case 3:
    return ' ';
  default:
    return '\t';
  }
}

bool TExportFilterASCII::CheckObjects(const TIntList& ids,
                                      const std::function<std::string(const TData&)>& accept) {
  if (ids.empty()) {
    AddError("No data objects to export");
    return false;
  }
  bool ok = true;
  for (int32_t id : ids) {
    const TData* data = GetProject() ? GetProject()->FindData(id) : nullptr;
    const std::string why = data ? accept(*data) : std::string("no such data object");
    if (!why.empty()) {
      AddError(DescribeObject(id) + ": " + why);
      ok = false;
    }
  }
  if (ok) FTargetMode = ids.size() == 1 ? etmOneFile : etmSeveralFiles;
  return ok;
}

void TExportFilterASCII::ExportEach(TMCC* mcc,
                                    const std::function<bool(const TData&, TBufferedWriting&)>& write) {
  TExportFilterTarget* target = GetTarget();
  TBufferedWriting buffer(
      1 << 20, [target](const void* data, int64_t size) { return target->WriteToStream(data, size); });
  for (TData* data : FLockedObjects) {
    if (mcc && mcc->GetCancel()) return;
    if (!target->NextStream()) return;
    buffer.Reset();
    if (!write(*data, buffer) || !buffer.FlushBuffer()) target->CleanupCurrentStream();
  }
}

// ---------------------------------------------------------------------------------------------------------
// TExportFilterImageASCII

bool TExportFilterImageASCII::IsIDListOkay(const TIntList& ids) {
  return CheckObjects(ids, [](const TData& data) {
    const auto* image = dynamic_cast<const TDImage*>(&data);
    if (!image) return "not an image (" + data.GetClassNameA() + ")";
    return image->GetSizeX() > 0 && image->GetSizeY() > 0 ? std::string() : std::string("the image is empty");
  });
}

bool TExportFilterImageASCII::WriteImage(const TDImage& image, TBufferedWriting& out, TMCC* mcc) {
  const char separator = Separator();
  const int32_t sizeX = image.GetSizeX(), sizeY = image.GetSizeY();
  std::string line;
  if (GetBoolParameter("Header")) {
    const IDataProject& project = *GetProject();
    line = "# " + OneLine(image.GetCaption()) + "\n";
    line += "# SizeX = " + std::to_string(sizeX) + ", SizeY = " + std::to_string(sizeY) + "\n";
    std::vector<double> xs, ys;
    std::string unit;
    if (ExportAxisValues(project, image.GetSpaceTransformationID(), 0, sizeX, 0, -1, xs, unit) &&
        ExportAxisValues(project, image.GetSpaceTransformationID(), 0, sizeY, 1, -1, ys, unit)) {
      line += "# x: ";
      AppendDouble(line, xs.front());
      line += " ... ";
      AppendDouble(line, xs.back());
      line += " " + unit + ", y: ";
      AppendDouble(line, ys.front());
      line += " ... ";
      AppendDouble(line, ys.back());
      line += " " + unit + "\n";
    }
    line += "# value unit: " + ValueUnit(project, image.GetZInterpretationID()) + "\n";
    line += "# rows: y = 0 first, " + std::to_string(sizeX) + " values per row, x = 0 first\n";
    if (!out.Write(line)) return false;
  }
  std::vector<float> values(static_cast<size_t>(sizeX));
  for (int32_t y = 0; y < sizeY; ++y) {
    if (mcc && mcc->GetCancel()) return false;
    image.GetFastLine(y, values.data());
    line.clear();
    for (int32_t x = 0; x < sizeX; ++x) {
      if (x) line += separator;
      AppendFloat(line, values[static_cast<size_t>(x)]);
    }
    line += '\n';
    if (!out.Write(line)) return false;
    if (mcc) mcc->AddProgress(sizeX);
  }
  return true;
}

void TExportFilterImageASCII::DoExport(TMCC* mcc) {
  int64_t total = 0;
  for (TData* data : FLockedObjects)
    if (const auto* image = dynamic_cast<const TDImage*>(data))
      total += static_cast<int64_t>(image->GetSizeX()) * image->GetSizeY();
  if (mcc) mcc->SetProgress(0, total);
  ExportEach(mcc, [this, mcc](const TData& data, TBufferedWriting& out) {
    return WriteImage(dynamic_cast<const TDImage&>(data), out, mcc);
  });
}

// ---------------------------------------------------------------------------------------------------------
// TExportFilterGraphASCII

bool TExportFilterGraphASCII::IsIDListOkay(const TIntList& ids) {
  return CheckObjects(ids, [](const TData& data) {
    const auto* graph = dynamic_cast<const TDGraph*>(&data);
    if (!graph) return "not a graph (" + data.GetClassNameA() + ")";
    return graph->GetSizeGraph() > 0 && graph->GetNumberOfSpectra() > 0 ? std::string()
                                                                        : std::string("the graph is empty");
  });
}

bool TExportFilterGraphASCII::WriteGraph(const TDGraph& graph, TBufferedWriting& out, TMCC* mcc) {
  const IDataProject& project = *GetProject();
  const char separator = Separator();
  const int32_t points = graph.GetSizeGraph();
  std::vector<double> axis;
  std::string unit;
  if (!ExportAxisValues(project, graph.GetXTransformationID(), graph.GetXInterpretationID(), points, 0, -1,
                        axis, unit)) {
    axis.resize(static_cast<size_t>(points));
    for (int32_t i = 0; i < points; ++i) axis[static_cast<size_t>(i)] = i;
    unit = "px";
  }
  std::vector<int64_t> elements;
  for (int32_t y = 0; y < graph.GetSizeY(); ++y)
    if (graph.GetLineValid(y))
      for (int32_t x = 0; x < graph.GetSizeX(); ++x)
        elements.push_back(x + static_cast<int64_t>(y) * graph.GetSizeX());

  std::string line;
  if (GetBoolParameter("Header")) {
    line = "# " + OneLine(graph.GetCaption()) + "\n";
    line += "# SizeX = " + std::to_string(graph.GetSizeX()) +
            ", SizeY = " + std::to_string(graph.GetSizeY()) + ", points = " + std::to_string(points) + "\n";
    line += "# axis unit: " + unit + "\n";
    line += "# value unit: " + ValueUnit(project, graph.GetZInterpretationID()) + "\n";
    line += "# columns: axis value, then the spectra of the " + std::to_string(elements.size()) +
            " pixels of valid lines in element order (e = x + y*SizeX)\n";
    if (!out.Write(line)) return false;
  }
  if (elements.empty()) {
    for (int32_t p = 0; p < points; ++p) {
      line.clear();
      AppendDouble(line, axis[static_cast<size_t>(p)]);
      line += '\n';
      if (!out.Write(line)) return false;
    }
    return true;
  }
  TGraphPointReader reader(graph, elements);
  return reader.Run(
      [&](int32_t point, const float* values, int64_t count) {
        line.clear();
        AppendDouble(line, axis[static_cast<size_t>(point)]);
        for (int64_t i = 0; i < count; ++i) {
          line += separator;
          AppendFloat(line, values[i]);
        }
        line += '\n';
        return out.Write(line);
      },
      mcc);
}

void TExportFilterGraphASCII::DoExport(TMCC* mcc) {
  int64_t total = 0;
  for (TData* data : FLockedObjects)
    if (const auto* graph = dynamic_cast<const TDGraph*>(data))
      total += graph->GetNumberOfSpectra() * graph->GetSizeGraph();
  if (mcc) mcc->SetProgress(0, total);
  ExportEach(mcc, [this, mcc](const TData& data, TBufferedWriting& out) {
    return WriteGraph(dynamic_cast<const TDGraph&>(data), out, mcc);
  });
}
