// MAT-file Level 5 export of graphs: the record writer and the "Matlab" filter.
#include "exchange/Exportfiltermatlab.h"

#include "common/OrvexException.h"
#include "common/threads/Multicorecalc.h"
#include "data/Dgraph.h"
#include "data/Dinterpretation.h"
#include "data/Dtransformation.h"
#include "exchange/Exportgraphdata.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <random>

#ifndef ORVEX_VERSION_STRING
#define ORVEX_VERSION_STRING "unknown"
#endif

namespace {

constexpr const char* kProgramName = "Orvex Project";

int64_t PaddingTo8(int64_t n) {
  return (8 - n % 8) % 8;
}

} // namespace

// ---------------------------------------------------------------------------------------------------------
// TMatFileWriter: primitives

bool TMatFileWriter::Put(const void* data, int64_t size) {
  if (FFailed) return false;
  if (FOut && !FOut->Write(data, size)) {
    FFailed = true;
    return false;
  }
  FBytes += size;
  return true;
}

bool TMatFileWriter::PutZeros(int64_t count) {
  static const char zeros[8] = {};
  while (count > 0) {
    const int64_t part = std::min<int64_t>(count, 8);
    if (!Put(zeros, part)) return false;
    count -= part;
  }
  return true;
}

int64_t TMatFileWriter::CalcNumberOfLines(int64_t n) {
  return (n % 8 < 1 || n < 5) ? n / 8 + 1 : n / 8 + 2;
}

std::string TMatFileWriter::ArrayName(const std::string& caption) {
  std::string name;
  for (char c : caption) {
    if (c == ' ') {
      name += '_';
    } else if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_') {
      name += c;
    }
  }
  if (name.empty() || !((name[0] >= 'A' && name[0] <= 'Z') || (name[0] >= 'a' && name[0] <= 'z')))
    name = "x" + name;
  if (name.size() > 63) name.resize(63);
  return name;
}

std::u16string TMatFileWriter::WideText(const std::string& utf8) {
  std::u16string result;
  for (size_t i = 0; i < utf8.size();) {
    const auto c = static_cast<unsigned char>(utf8[i]);
    uint32_t code = c;
    size_t length = 1;
    if (c >= 0xF0 && i + 3 < utf8.size()) {
      code = ((c & 0x07u) << 18) | ((utf8[i + 1] & 0x3Fu) << 12) | ((utf8[i + 2] & 0x3Fu) << 6) |
             (utf8[i + 3] & 0x3Fu);
      length = 4;
    } else if (c >= 0xE0 && i + 2 < utf8.size()) {
      code = ((c & 0x0Fu) << 12) | ((utf8[i + 1] & 0x3Fu) << 6) | (utf8[i + 2] & 0x3Fu);
      length = 3;
    } else if (c >= 0xC0 && i + 1 < utf8.size()) {
      code = ((c & 0x1Fu) << 6) | (utf8[i + 1] & 0x3Fu);
      length = 2;
    }
    if (code >= 0x10000) {
      code -= 0x10000;
      result += static_cast<char16_t>(0xD800 + (code >> 10));
      result += static_cast<char16_t>(0xDC00 + (code & 0x3FF));
    } else {
      result += static_cast<char16_t>(code);
    }
    i += length;
  }
  return result;
}

std::string TMatFileWriter::HeaderText(const std::tm& time) {
  // asctime's form, written out here so that the locale can't change it.
  static const char* const days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  static const char* const months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "%.3s %.3s%3d %.2d:%.2d:%.2d %d", days[(time.tm_wday % 7 + 7) % 7],
                months[(time.tm_mon % 12 + 12) % 12], time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec,
                1900 + time.tm_year);
  std::string text = std::string("MATLAB 5.0 MAT-file, Platform: PCWIN, Created on: ") + stamp;
  text.resize(116, ' ');
  return text;
}

int64_t TMatFileWriter::Measure(const std::function<void(TMatFileWriter&)>& write) {
  TMatFileWriter counter;
  write(counter);
  return counter.Bytes();
}

// ---------------------------------------------------------------------------------------------------------
// TMatFileWriter: records

int64_t TMatFileWriter::WriteHeader(const std::tm& time) {
  const int64_t start = FBytes;
  const std::string text = HeaderText(time) + std::string(8, ' ');
  const unsigned char tail[4] = {0x00, 0x01, 'I', 'M'};
  Put(text.data(), static_cast<int64_t>(text.size()));
  Put(tail, 4);
  return Since(start);
}

int64_t TMatFileWriter::WriteTopTag(int32_t size) {
  const int64_t start = FBytes;
  PutInt32(miMATRIX);
  PutInt32(size);
  return Since(start);
}

int64_t TMatFileWriter::WriteArrayFlags(int32_t arrayClass) {
  const int64_t start = FBytes;
  PutInt32(miUINT32);
  PutInt32(8);
  PutInt32(arrayClass);
  PutInt32(0);
  return Since(start);
}

int64_t TMatFileWriter::WriteDimensions(int32_t rows, int32_t columns) {
  const int64_t start = FBytes;
  PutInt32(miINT32);
  PutInt32(8);
  PutInt32(rows);
  PutInt32(columns);
  return Since(start);
}

int64_t TMatFileWriter::WriteArrayName(const std::string& caption) {
  return WriteString(ArrayName(caption), false);
}

int64_t TMatFileWriter::WriteClassName(const std::string& name) {
  const int64_t start = FBytes;
  const auto n = static_cast<int64_t>(name.size());
  PutInt32(miINT8);
  PutInt32(static_cast<int32_t>(n));
  Put(name.data(), n);
  PutZeros(PaddingTo8(n));
  return Since(start);
}

int64_t TMatFileWriter::WriteFieldNames(const std::vector<std::string>& names, int32_t length) {
  const int64_t start = FBytes;
  // The length of each name in the short form, then the names zero-filled to that length.
  PutInt16(static_cast<int16_t>(miINT32));
  PutInt16(4);
  PutInt32(length);
  const int64_t bytes = static_cast<int64_t>(length) * static_cast<int64_t>(names.size());
  PutInt32(miINT8);
  PutInt32(static_cast<int32_t>(bytes));
  for (const std::string& name : names) {
    const int64_t used = std::min<int64_t>(static_cast<int64_t>(name.size()), length - 1);
    Put(name.data(), used);
    PutZeros(length - used);
  }
  PutZeros(PaddingTo8(bytes));
  return Since(start);
}

int64_t TMatFileWriter::WriteString(const std::string& text, bool wide) {
  const int64_t start = FBytes;
  std::string bytes;
  if (wide) {
    for (char16_t unit : WideText(text)) {
      bytes += static_cast<char>(unit & 0xFF);
      bytes += static_cast<char>(unit >> 8);
    }
  } else {
    bytes = text;
  }
  const int32_t type = wide ? miUINT16 : miINT8;
  const auto n = static_cast<int64_t>(bytes.size());
  if (n < 5) {
    PutInt16(static_cast<int16_t>(type));
    PutInt16(static_cast<int16_t>(n));
    Put(bytes.data(), n);
    PutZeros(4 - n);
  } else {
    PutInt32(type);
    PutInt32(static_cast<int32_t>(n));
    Put(bytes.data(), n);
    PutZeros(PaddingTo8(n));
  }
  return Since(start);
}

int64_t TMatFileWriter::WriteCellDescription(int32_t arrayClass, int32_t rows, int64_t lines,
                                             int32_t columns) {
  const int64_t start = FBytes;
  PutInt32(miMATRIX);
  PutInt32(static_cast<int32_t>(lines * 8 + 40));
  WriteArrayFlags(arrayClass);
  WriteDimensions(rows, columns);
  PutInt16(static_cast<int16_t>(miINT8)); // the empty name in the short form
  PutInt16(0);
  PutZeros(4);
  return Since(start);
}

int64_t TMatFileWriter::WriteStringCell(const std::string& text) {
  const int64_t start = FBytes;
  const auto n = static_cast<int64_t>(WideText(text).size());
  WriteCellDescription(mxCHAR, n == 0 ? 0 : 1, CalcNumberOfLines(2 * n), static_cast<int32_t>(n));
  WriteString(text, true);
  return Since(start);
}

int64_t TMatFileWriter::WriteDate(const std::tm& time) {
  const int64_t start = FBytes;
  WriteCellDescription(mxDOUBLE, 1, 7, 6);
  PutInt32(miDOUBLE);
  PutInt32(48);
  const double values[6] = {1900.0 + time.tm_year, 1.0 + time.tm_mon,   double(time.tm_mday),
                            double(time.tm_hour),  double(time.tm_min), double(time.tm_sec)};
  Put(values, sizeof values);
  return Since(start);
}

int64_t TMatFileWriter::WriteDoubleVector(const std::vector<double>& values) {
  if (values.empty()) return WriteEmptyDouble();
  const int64_t start = FBytes;
  const auto n = static_cast<int64_t>(values.size());
  WriteCellDescription(mxDOUBLE, 1, CalcNumberOfLines(8 * n), static_cast<int32_t>(n));
  PutInt32(miDOUBLE);
  PutInt32(static_cast<int32_t>(8 * n));
  Put(values.data(), 8 * n);
  return Since(start);
}

int64_t TMatFileWriter::WriteIndexVector(int64_t count) {
  const int64_t start = FBytes;
  const int64_t n = 4 * count;
  WriteCellDescription(mxDOUBLE, 1, CalcNumberOfLines(n), static_cast<int32_t>(count));
  if (n < 5) {
    PutInt16(static_cast<int16_t>(miINT32));
    PutInt16(static_cast<int16_t>(n));
    for (int64_t i = 1; i <= count; ++i) PutInt32(static_cast<int32_t>(i));
    PutZeros(4 - n);
  } else {
    PutInt32(miINT32);
    PutInt32(static_cast<int32_t>(n));
    if (IsCounting()) {
      FBytes += n;
    } else {
      std::vector<int32_t> block(static_cast<size_t>(std::min<int64_t>(count, 65536)));
      for (int64_t first = 0; first < count; first += static_cast<int64_t>(block.size())) {
        const int64_t m = std::min<int64_t>(static_cast<int64_t>(block.size()), count - first);
        for (int64_t i = 0; i < m; ++i) block[static_cast<size_t>(i)] = static_cast<int32_t>(first + i + 1);
        Put(block.data(), 4 * m);
      }
    }
    PutZeros(PaddingTo8(n));
  }
  return Since(start);
}

int64_t TMatFileWriter::WriteEmptyDouble() {
  const int64_t start = FBytes;
  WriteCellDescription(mxDOUBLE, 0, 1, 0);
  PutInt16(static_cast<int16_t>(miUINT8));
  PutInt16(0);
  PutZeros(4);
  return Since(start);
}

int64_t TMatFileWriter::WriteEmptyCell() {
  return WriteCellDescription(mxCELL, 0, 0, 0);
}

int64_t TMatFileWriter::WriteCell(int32_t rows, int32_t columns,
                                  const std::function<void(TMatFileWriter&)>& elements) {
  const int64_t start = FBytes;
  WriteCellDescription(mxCELL, rows, Measure(elements) / 8, columns);
  elements(*this);
  return Since(start);
}

int64_t TMatFileWriter::WriteImageMode(bool image) {
  if (!image) return WriteEmptyDouble();
  const int64_t start = FBytes;
  WriteCellDescription(mxDOUBLE, 1, 1, 1);
  PutInt16(static_cast<int16_t>(miUINT8));
  PutInt16(1);
  const uint8_t one = 1;
  Put(&one, 1);
  PutZeros(3);
  return Since(start);
}

int64_t TMatFileWriter::WriteImageSize(int32_t sizeX, int32_t sizeY, bool image) {
  if (!image) return WriteEmptyDouble();
  const int64_t start = FBytes;
  if (sizeX < 256 && sizeY < 256) {
    WriteCellDescription(mxDOUBLE, 1, 1, 2);
    PutInt16(static_cast<int16_t>(miUINT8));
    PutInt16(2);
    const uint8_t sizes[2] = {static_cast<uint8_t>(sizeX), static_cast<uint8_t>(sizeY)};
    Put(sizes, 2);
    PutZeros(2);
  } else {
    WriteCellDescription(mxUINT32, 1, 2, 2);
    PutInt32(miUINT32);
    PutInt32(8);
    PutInt32(sizeX);
    PutInt32(sizeY);
  }
  return Since(start);
}

int64_t TMatFileWriter::WriteData(const TMatlabVariable& variable) {
  const int64_t start = FBytes;
  const int64_t rows = static_cast<int64_t>(variable.SizeX) * variable.SizeY;
  const int64_t n = rows * variable.SizeGraph * 4;
  WriteCellDescription(mxSINGLE, static_cast<int32_t>(rows), CalcNumberOfLines(n), variable.SizeGraph);
  PutInt32(miSINGLE);
  PutInt32(static_cast<int32_t>(n));
  if (IsCounting()) {
    FBytes += n;
  } else if (!FFailed && (!variable.WriteValues || !variable.WriteValues(*this))) {
    FFailed = true;
  }
  PutZeros(PaddingTo8(n));
  return Since(start);
}

int64_t TMatFileWriter::WriteAxisScale(const TMatlabVariable& variable) {
  return WriteCell(2, 2, [&variable](TMatFileWriter& w) {
    if (variable.IsLineScan())
      w.WriteDoubleVector(variable.LineAxis);
    else
      w.WriteEmptyDouble();
    w.WriteDoubleVector(variable.SpectralAxis);
    w.WriteStringCell(variable.SpaceUnit);
    w.WriteStringCell(variable.SpectralUnit);
  });
}

int64_t TMatFileWriter::WriteImageAxisScale(const TMatlabVariable& variable) {
  return WriteCell(2, 2, [&variable](TMatFileWriter& w) {
    if (variable.IsImage()) {
      w.WriteDoubleVector(variable.ImageAxisX);
      w.WriteDoubleVector(variable.ImageAxisY);
      w.WriteStringCell(variable.SpaceUnit);
      w.WriteStringCell(variable.SpaceUnit);
    } else {
      for (int i = 0; i < 4; ++i) w.WriteEmptyDouble();
    }
  });
}

int64_t TMatFileWriter::WriteEmptyGrid() {
  return WriteCell(2, 2, [](TMatFileWriter& w) {
    for (int i = 0; i < 4; ++i) w.WriteEmptyDouble();
  });
}

int64_t TMatFileWriter::WriteClassLookUp() {
  return WriteCell(2, 1, [](TMatFileWriter& w) {
    w.WriteEmptyCell();
    w.WriteEmptyCell();
  });
}

int64_t TMatFileWriter::WriteInclude(int32_t sizeX, int32_t sizeY, int32_t points) {
  return WriteCell(2, 2, [=](TMatFileWriter& w) {
    w.WriteIndexVector(static_cast<int64_t>(sizeX) * sizeY);
    w.WriteIndexVector(points);
    w.WriteEmptyCell();
    w.WriteEmptyCell();
  });
}

int64_t TMatFileWriter::WriteAxisType(const std::string& text) {
  return WriteCell(2, 1, [&text](TMatFileWriter& w) {
    w.WriteStringCell(text);
    w.WriteStringCell(text);
  });
}

int64_t TMatFileWriter::WriteHistory(const std::string& line) {
  return WriteCell(1, 1, [&line](TMatFileWriter& w) { w.WriteStringCell(line); });
}

int64_t TMatFileWriter::WriteType(int32_t sizeX, int32_t sizeY) {
  return WriteStringCell(sizeX < 2 || sizeY < 2 ? "data" : "image");
}

int64_t TMatFileWriter::WriteBody(const TMatlabVariable& v, TMatlabLayout layout) {
  const int64_t start = FBytes;
  if (layout == TMatlabLayout::Structure) {
    WriteArrayFlags(mxSTRUCT);
    WriteDimensions(1, 1);
    WriteArrayName(v.Caption);
    WriteFieldNames({"name", "date", "data", "axisscale", "imagesize", "imageaxisscale"}, 16);
    WriteStringCell(v.Caption);
    WriteDate(v.Date);
    WriteData(v);
    WriteAxisScale(v);
    WriteImageSize(v.SizeX, v.SizeY, v.IsImage());
    WriteImageAxisScale(v);
  } else {
    WriteArrayFlags(mxOBJECT);
    WriteDimensions(1, 1);
    WriteArrayName(v.Caption);
    WriteClassName("dataset");
    WriteFieldNames({"name",           "type",          "author",      "date",     "moddate",
                     "imagesize",      "imagemode",     "data",        "label",    "axisscale",
                     "imageaxisscale", "title",         "class",       "include",  "classlookup",
                     "axistype",       "imageaxistype", "description", "userdata", "datasetversion",
                     "history",        "uniqueid"},
                    15);
    WriteStringCell(v.Caption);
    WriteType(v.SizeX, v.SizeY);
    WriteStringCell(v.Author);
    WriteDate(v.Date);
    WriteDate(v.Date);
    WriteImageSize(v.SizeX, v.SizeY, v.IsImage());
    WriteImageMode(v.IsImage());
    WriteData(v);
    WriteEmptyGrid(); // label
    WriteAxisScale(v);
    WriteImageAxisScale(v);
    WriteEmptyGrid(); // title
    WriteEmptyGrid(); // class
    WriteInclude(v.SizeX, v.SizeY, v.SizeGraph);
    WriteClassLookUp();
    WriteAxisType("none");
    WriteAxisType("none");
    WriteStringCell("");
    WriteUserData();
    WriteStringCell("6.0");
    WriteHistory(v.History);
    WriteStringCell(v.UniqueID);
  }
  return Since(start);
}

int64_t TMatFileWriter::VariableSize(const TMatlabVariable& variable, TMatlabLayout layout) {
  return Measure([&](TMatFileWriter& w) { w.WriteBody(variable, layout); });
}

int64_t TMatFileWriter::WriteFile(const TMatlabVariable& variable, TMatlabLayout layout, int32_t topSize) {
  WriteHeader(variable.Date);
  WriteTopTag(topSize);
  const int64_t body = WriteBody(variable, layout);
  return FFailed ? 0 : body;
}

// ---------------------------------------------------------------------------------------------------------
// TExportFilterMatlab

namespace {

const std::vector<std::string>& SpaceUnitNames() {
  static const std::vector<std::string> names = {"mm", "µm", "nm", "pm"};
  return names;
}
const std::vector<std::string>& SpectralUnitNames() {
  static const std::vector<std::string> names = {"nm", "µm",  "1/cm",    "rel. 1/cm",
                                                 "eV", "meV", "rel. eV", "rel. meV"};
  return names;
}
const std::vector<std::string>& PhaseUnitNames() {
  static const std::vector<std::string> names = {"grad", "mgrad", "rad", "mrad"};
  return names;
}

std::vector<TParameterChoice> Choices(const std::vector<std::string>& names) {
  std::vector<TParameterChoice> choices;
  for (size_t i = 0; i < names.size(); ++i) choices.push_back({names[i], static_cast<int32_t>(i)});
  return choices;
}

/// The index of the unit of this name in the interpretation's list; its current unit when it has none.
int32_t UnitByName(const TDInterpretation& interpretation, const std::string& name) {
  const auto& units = interpretation.GetUnits();
  const auto it = std::find(units.begin(), units.end(), name);
  return it != units.end() ? static_cast<int32_t>(it - units.begin()) : interpretation.GetUnitIndex();
}

int32_t UnitByIndex(const TDInterpretation& interpretation, int32_t index) {
  return index >= 0 && index < interpretation.GetNumberOfUnits() ? index : interpretation.GetUnitIndex();
}

bool IsKnownSpectralKind(TUnitKind kind) {
  switch (kind) {
  case TUnitKind::Space:
  case TUnitKind::Spectral:
  case TUnitKind::Time:
  case TUnitKind::ZValue:
  case TUnitKind::Frequency:
  case TUnitKind::Phase:
    return true;
  default:
    return false;
  }
}

std::tm LocalNow() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local;
}

} // namespace

const TParameterTable& TExportFilterMatlab::ParameterTable() {
  static const TParameterTable table = [] {
    TParameterTable t;
    t.AddList("MatlabExportTypeIndex", "Export Type", 0, Choices({"DSO 6.0", "Matlab Structure"}));
    t.AddList("XSpaceUnitIndex", "Space Unit", 2, Choices(SpaceUnitNames()));
    t.AddList("XSpectralUnitIndex", "Spectral Unit", 0, Choices(SpectralUnitNames()));
    t.AddList("XTimeUnitIndex", "Time Unit", 2, Choices(TDTimeInterpretation().GetUnits()));
    t.AddList("XFrequencyUnitIndex", "Frequency Unit", 2, Choices(TDFrequencyInterpretation().GetUnits()));
    t.AddList("XPhaseUnitIndex", "Phase Unit", 0, Choices(PhaseUnitNames()));
    return t;
  }();
  return table;
}

TExportFilterMatlab::TExportFilterMatlab() : TExportFilter("Matlab") {}

const TParameterTable& TExportFilterMatlab::GetParameterTable() const {
  return ParameterTable();
}

void TExportFilterMatlab::GetFileFilter(std::string& filter, std::string& extension) const {
  filter = "Matlab Files|*.mat";
  extension = ".mat";
}

void TExportFilterMatlab::CFIGetStyle(std::vector<std::string>& style) const {
  style.push_back("Push XUnits");
  TExportFilter::CFIGetStyle(style);
  style.push_back("Pop");
}

int32_t TExportFilterMatlab::GetUnitIndex(const TDInterpretation& interpretation) const {
  switch (interpretation.GetUnitKind()) {
  case TUnitKind::Space:
    return UnitByName(
        interpretation,
        SpaceUnitNames()[static_cast<size_t>(std::clamp(GetIntParameter("XSpaceUnitIndex"), 0, 3))]);
  case TUnitKind::Spectral:
    return UnitByName(
        interpretation,
        SpectralUnitNames()[static_cast<size_t>(std::clamp(GetIntParameter("XSpectralUnitIndex"), 0, 7))]);
  case TUnitKind::Time:
    return UnitByIndex(interpretation, GetIntParameter("XTimeUnitIndex"));
  case TUnitKind::Frequency:
    return UnitByIndex(interpretation, GetIntParameter("XFrequencyUnitIndex"));
  case TUnitKind::Phase:
    return UnitByName(
        interpretation,
        PhaseUnitNames()[static_cast<size_t>(std::clamp(GetIntParameter("XPhaseUnitIndex"), 0, 3))]);
  default:
    return 0;
  }
}

int32_t TExportFilterMatlab::GetSpaceUnitIndex(const TDInterpretation& interpretation) {
  switch (interpretation.GetUnitKind()) {
  case TUnitKind::Space:
  case TUnitKind::Time:
  case TUnitKind::Frequency:
    return UnitByIndex(interpretation, 2);
  default:
    return 0;
  }
}

std::string TExportFilterMatlab::TooLargeMessage(const std::string& caption, int64_t bytes) {
  return caption + ": too large for a MAT-file of Level 5 (" + std::to_string(bytes) +
         " bytes, at most 2 GiB per variable)";
}

bool TExportFilterMatlab::IsIDListOkay(const TIntList& ids) {
  IDataProject* project = GetProject();
  if (ids.empty()) {
    AddError("No data objects to export");
    return false;
  }
  bool ok = true;
  for (int32_t id : ids) {
    const auto* graph = project ? dynamic_cast<const TDGraph*>(project->FindData(id)) : nullptr;
    std::string why;
    if (!project || !project->FindData(id)) {
      why = "no such data object";
    } else if (!graph) {
      why = "not a graph (" + project->FindData(id)->GetClassNameA() + ")";
    } else if (graph->GetSizeGraph() < 4) {
      why = "fewer than 4 points per spectrum";
    } else if (!dynamic_cast<const TDTransformation*>(project->FindData(graph->GetXTransformationID()))) {
      why = "no spectral transformation";
    } else {
      const TDInterpretation* interpretation =
          AxisInterpretation(*project, graph->GetXTransformationID(), graph->GetXInterpretationID());
      if (!interpretation || !IsKnownSpectralKind(interpretation->GetUnitKind()))
        why = "the spectral axis has no interpretation of a known kind";
    }
    if (!why.empty()) {
      AddError(DescribeObject(id) + ": " + why);
      ok = false;
    }
  }
  if (ok) FTargetMode = ids.size() == 1 ? etmOneFile : etmSeveralFiles;
  return ok;
}

bool TExportFilterMatlab::MakeVariable(const TDGraph& graph, TMatlabLayout layout, const std::tm& now,
                                       TMatlabVariable& v, std::string& problem) const {
  const IDataProject& project = *GetProject();
  v = TMatlabVariable();
  v.Caption = graph.GetCaption();
  v.SizeX = graph.GetSizeX();
  v.SizeY = graph.GetSizeY();
  v.SizeGraph = graph.GetSizeGraph();
  v.Date = now;
  v.Author = kProgramName;
  v.History = std::string("Created by ") + kProgramName + " (Version " + ORVEX_VERSION_STRING + ")";

  const TDInterpretation* spectral =
      AxisInterpretation(project, graph.GetXTransformationID(), graph.GetXInterpretationID());
  if (!spectral ||
      !ExportAxisValues(project, graph.GetXTransformationID(), graph.GetXInterpretationID(), v.SizeGraph, 0,
                        GetUnitIndex(*spectral), v.SpectralAxis, v.SpectralUnit)) {
    problem = "no spectral transformation";
    return false;
  }
  const int32_t spaceID = graph.GetSpaceTransformationID();
  const bool hasSpace = dynamic_cast<const TDTransformation*>(project.FindData(spaceID)) != nullptr;
  if (!hasSpace && layout == TMatlabLayout::DSO6 && (v.SizeX > 1 || v.SizeY > 1)) {
    problem = "no space transformation, which a line scan or image needs in DSO 6.0";
    return false;
  }
  if (hasSpace) {
    const TDInterpretation* space = AxisInterpretation(project, spaceID, 0);
    const int32_t unit = space ? GetSpaceUnitIndex(*space) : -1;
    std::string unitName;
    if (v.IsLineScan()) {
      ExportLineScanValues(project, graph, unit, v.LineAxis, unitName);
    } else if (v.IsImage()) {
      ExportAxisValues(project, spaceID, 0, v.SizeX, 0, unit, v.ImageAxisX, unitName);
      ExportAxisValues(project, spaceID, 0, v.SizeY, 1, unit, v.ImageAxisY, unitName);
    } else {
      std::vector<double> unused;
      ExportAxisValues(project, spaceID, 0, 1, 0, unit, unused, unitName);
    }
    v.SpaceUnit = unitName;
  }

  // Unique in practice: the name, the time to the second and a random number. The random digits fill the
  // time's digits up to 24, so the identifier (and with it the file) has the same length at every moment and
  // a size limit found by one export holds for the next.
  static std::mt19937_64 random{std::random_device{}()};
  static std::mutex randomLock;
  uint64_t number = 0;
  {
    std::lock_guard lock(randomLock);
    number = random();
  }
  const std::string name = TMatFileWriter::ArrayName(v.Caption);
  const std::string time = std::to_string(1900 + now.tm_year) + std::to_string(1 + now.tm_mon) +
                           std::to_string(now.tm_mday) + std::to_string(now.tm_hour) +
                           std::to_string(now.tm_min) + std::to_string(now.tm_sec);
  std::string digits = std::to_string(number % 10000000000000000000ull);
  const size_t wanted = time.size() < 24 ? 24 - time.size() : 0;
  digits =
      digits.size() >= wanted ? digits.substr(0, wanted) : std::string(wanted - digits.size(), '0') + digits;
  v.UniqueID = (v.Caption.empty() ? std::string("@unnamed@") : name) + time + digits;
  return true;
}

bool TExportFilterMatlab::ExportGraph(const TDGraph& graph, TMatlabLayout layout, TBufferedWriting& buffer,
                                      TMCC* mcc) {
  TExportFilterTarget& target = *GetTarget();
  TMatlabVariable variable;
  std::string problem;
  if (!MakeVariable(graph, layout, LocalNow(), variable, problem)) {
    AddError(graph.GetCaption() + ": " + problem);
    return target.SkipStream();
  }
  const int64_t size = TMatFileWriter::VariableSize(variable, layout);
  if (!TMatFileWriter::FitsVariable(size)) {
    AddError(TooLargeMessage(graph.GetCaption(), size));
    return target.SkipStream();
  }
  // The file wants the pixels of a point together, y fastest.
  std::vector<int64_t> elements;
  elements.reserve(static_cast<size_t>(graph.GetNumberOfSpectra()));
  for (int32_t x = 0; x < variable.SizeX; ++x)
    for (int32_t y = 0; y < variable.SizeY; ++y)
      elements.push_back(x + static_cast<int64_t>(y) * variable.SizeX);
  variable.WriteValues = [&graph, &elements, mcc](TMatFileWriter& w) {
    TGraphPointReader reader(graph, elements);
    return reader.RunBlocks(
        [&w](int32_t, int32_t points, const float* values, int64_t count) {
          return w.Put(values, points * count * static_cast<int64_t>(sizeof(float)));
        },
        mcc);
  };

  if (!target.NextStream()) return false;
  buffer.Reset();
  TMatFileWriter writer(&buffer);
  // The size is written as 1 first and put in once everything else is on its way.
  const int64_t body = writer.WriteFile(variable, layout, 1);
  bool ok = !writer.Failed() && buffer.FlushBuffer();
  if (ok && body != size)
    throw OrvexException("TExportFilterMatlab::ExportGraph: " + std::to_string(body) + " bytes written, " +
                         std::to_string(size) + " measured");
  if (ok) {
    const auto patched = static_cast<int32_t>(body);
    ok = target.SetStreamPosition(TMatFileWriter::kTopSizeOffset) && target.WriteToStream(&patched, 4);
  }
  if (!ok) target.CleanupCurrentStream();
  return !(mcc && mcc->GetCancel());
}

bool TExportFilterMatlab::LockDataObjects(const TIntList& ids) {
  if (!TExportFilter::LockDataObjects(ids)) return false;
  IDataProject& project = *GetProject();
  auto lock = [&project](int32_t id) { return id != 0 ? project.LockData(id) : nullptr; };
  auto interpretationOf = [&project](int32_t transformationID) {
    const auto* t = dynamic_cast<const TDTransformation*>(project.FindData(transformationID));
    return t ? t->GetInterpretationID() : 0;
  };
  for (TData* data : FLockedObjects) {
    TAxisObjects objects;
    if (const auto* graph = dynamic_cast<const TDGraph*>(data)) {
      objects.SpectralTransformation = lock(graph->GetXTransformationID());
      objects.SpectralInterpretation =
          lock(graph->GetXInterpretationID() != 0 ? graph->GetXInterpretationID()
                                                  : interpretationOf(graph->GetXTransformationID()));
      objects.SpaceTransformation = lock(graph->GetSpaceTransformationID());
      objects.SpaceInterpretation = lock(interpretationOf(graph->GetSpaceTransformationID()));
    }
    FAxisObjects.push_back(objects);
  }
  return true;
}

void TExportFilterMatlab::UnlockDataObjects() {
  if (IDataProject* project = GetProject())
    for (const TAxisObjects& objects : FAxisObjects)
      for (TData* data : {objects.SpectralTransformation, objects.SpectralInterpretation,
                          objects.SpaceTransformation, objects.SpaceInterpretation})
        if (data) project->UnlockData(data);
  FAxisObjects.clear();
  TExportFilter::UnlockDataObjects();
}

void TExportFilterMatlab::DoExport(TMCC* mcc) {
  const auto layout = static_cast<TMatlabLayout>(GetIntParameter("MatlabExportTypeIndex"));
  int64_t total = 0;
  for (TData* data : FLockedObjects)
    if (const auto* graph = dynamic_cast<const TDGraph*>(data))
      total += graph->GetNumberOfSpectra() * graph->GetSizeGraph();
  if (mcc) mcc->SetProgress(0, total);
  TExportFilterTarget* target = GetTarget();
  TBufferedWriting buffer(
      4 << 20, [target](const void* data, int64_t size) { return target->WriteToStream(data, size); });
  for (TData* data : FLockedObjects) {
    const auto* graph = dynamic_cast<const TDGraph*>(data);
    if (!graph) continue;
    if (mcc && mcc->GetCancel()) return;
    if (!ExportGraph(*graph, layout, buffer, mcc)) return;
  }
}
