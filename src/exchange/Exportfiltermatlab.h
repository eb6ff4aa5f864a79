// Export of graphs to MAT-files of Level 5, one file per graph, as a "dataset" object ("DSO 6.0") or a plain
// structure ("Matlab Structure"), written record by record by the filter's own writer.
#pragma once

#include "exchange/Exportfilter.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

class TDGraph;
class TDInterpretation;
class TMatFileWriter;

/// What one MAT variable holds, gathered from a graph before anything is written.
struct TMatlabVariable {
  std::string Caption;
  int32_t SizeX = 1;
  int32_t SizeY = 1;
  int32_t SizeGraph = 0;
  std::vector<double> LineAxis;     ///< positions along a line scan, empty otherwise
  std::vector<double> SpectralAxis; ///< SizeGraph values
  std::string SpaceUnit;            ///< empty without space axis
  std::string SpectralUnit;
  std::vector<double> ImageAxisX, ImageAxisY; ///< images only
  std::tm Date{};
  std::string UniqueID;
  std::string Author;
  std::string History;
  /// Writes the X·Y·SizeGraph values as floats, point outermost, then x, then y innermost. Never called
  /// when the writer only counts.
  std::function<bool(TMatFileWriter&)> WriteValues;

  bool IsImage() const { return SizeX >= 2 && SizeY >= 2; }
  bool IsLineScan() const { return !IsImage() && (SizeX > 1 || SizeY > 1); }
};

enum class TMatlabLayout : int32_t { DSO6 = 0, Structure = 1 };

/// The records of a MAT-file of Level 5, little-endian. Every writer returns the bytes it wrote, 0 after a
/// failure. Without an output the writer only counts, which is how sizes are known before writing.
class TMatFileWriter {
public:
  /// MAT types and array classes used here.
  enum : int32_t { miINT8 = 1, miUINT8 = 2, miUINT16 = 4, miINT32 = 5, miUINT32 = 6, miSINGLE = 7 };
  enum : int32_t { miDOUBLE = 9, miMATRIX = 14 };
  enum : int32_t {
    mxCELL = 1,
    mxSTRUCT = 2,
    mxOBJECT = 3,
    mxCHAR = 4,
    mxDOUBLE = 6,
    mxSINGLE = 7,
    mxUINT32 = 13
  };
  /// Most bytes of one variable of Level 5.
  static constexpr int64_t kMaxVariableBytes = 2147483647;
  /// Where the size of the top variable stands in the file.
  static constexpr int64_t kTopSizeOffset = 132;
  static bool FitsVariable(int64_t bytes) { return bytes <= kMaxVariableBytes; }

  explicit TMatFileWriter(TBufferedWriting* out = nullptr) : FOut(out) {}

  /// Raw bytes; false after a failure.
  bool Put(const void* data, int64_t size);
  bool PutInt16(int16_t value) { return Put(&value, 2); }
  bool PutInt32(int32_t value) { return Put(&value, 4); }
  bool PutZeros(int64_t count);
  int64_t Bytes() const { return FBytes; }
  bool Failed() const { return FFailed; }
  bool IsCounting() const { return FOut == nullptr; }

  /// The 8-byte lines a data element of n payload bytes takes, tag included.
  static int64_t CalcNumberOfLines(int64_t n);
  /// The caption made a MAT name: blanks become "_", everything but A–Z, a–z, 0–9, "_" goes, a name not
  /// starting with a letter gets "x" in front, at most 63 characters.
  static std::string ArrayName(const std::string& caption);
  /// UTF-8 as UTF-16 code units (characters beyond the first plane as surrogate pairs).
  static std::u16string WideText(const std::string& utf8);
  /// The 116 characters of the file header's text: the creation time as asctime writes it, blank-filled.
  static std::string HeaderText(const std::tm& time);
  /// Bytes of what write puts out, without writing anything.
  static int64_t Measure(const std::function<void(TMatFileWriter&)>& write);

  /// @{ The records.
  int64_t WriteHeader(const std::tm& time);
  int64_t WriteTopTag(int32_t size);
  int64_t WriteArrayFlags(int32_t arrayClass);
  int64_t WriteDimensions(int32_t rows, int32_t columns);
  int64_t WriteArrayName(const std::string& caption);
  int64_t WriteClassName(const std::string& name);
  int64_t WriteFieldNames(const std::vector<std::string>& names, int32_t length);
  int64_t WriteString(const std::string& text, bool wide);
  int64_t WriteCellDescription(int32_t arrayClass, int32_t rows, int64_t lines, int32_t columns);
  int64_t WriteStringCell(const std::string& text);
  int64_t WriteDate(const std::tm& time);
  int64_t WriteDoubleVector(const std::vector<double>& values);
  int64_t WriteIndexVector(int64_t count);
  int64_t WriteEmptyDouble();
  int64_t WriteEmptyCell();
  /// A cell of rows × columns whose elements write puts out, its size measured first.
  int64_t WriteCell(int32_t rows, int32_t columns, const std::function<void(TMatFileWriter&)>& elements);
  int64_t WriteImageMode(bool image);
  int64_t WriteImageSize(int32_t sizeX, int32_t sizeY, bool image);
  int64_t WriteData(const TMatlabVariable& variable);
  int64_t WriteAxisScale(const TMatlabVariable& variable);
  int64_t WriteImageAxisScale(const TMatlabVariable& variable);
  int64_t WriteEmptyGrid(); ///< label, title, class: 2 × 2 empties
  int64_t WriteClassLookUp();
  int64_t WriteInclude(int32_t sizeX, int32_t sizeY, int32_t points);
  int64_t WriteAxisType(const std::string& text);
  int64_t WriteUserData() { return WriteEmptyDouble(); }
  int64_t WriteHistory(const std::string& line);
  int64_t WriteType(int32_t sizeX, int32_t sizeY);
  /// @}

  /// The bytes of the top variable behind its tag (what is patched at offset 132).
  static int64_t VariableSize(const TMatlabVariable& variable, TMatlabLayout layout);
  /// The whole file: header, top tag with the size given, the variable. Returns the variable's bytes.
  int64_t WriteFile(const TMatlabVariable& variable, TMatlabLayout layout, int32_t topSize);

private:
  int64_t Since(int64_t start) const { return FFailed ? 0 : FBytes - start; }
  int64_t WriteBody(const TMatlabVariable& variable, TMatlabLayout layout);

  TBufferedWriting* FOut;
  int64_t FBytes = 0;
  bool FFailed = false;
};

/// The "Matlab" export filter.
class TExportFilterMatlab : public TExportFilter {
public:
  TExportFilterMatlab();
  ~TExportFilterMatlab() override { UnlockDataObjects(); }

  bool IsIDListOkay(const TIntList& ids) override;
  void DoExport(TMCC* mcc) override;
  void GetFileFilter(std::string& filter, std::string& extension) const override;
  /// Locks each graph and the transformations and interpretations of its axes for the whole export.
  bool LockDataObjects(const TIntList& ids) override;
  void UnlockDataObjects() override;
  void CFIGetStyle(std::vector<std::string>& style) const override;
  std::vector<std::string> GetAcceptedClasses() const override { return {"TDGraph"}; }
  const TParameterTable& GetParameterTable() const override;
  static const TParameterTable& ParameterTable();

  /// The unit (an index of the interpretation's own units) of the spectral axis by the kind of its
  /// interpretation; names of the filter's lists that differ from the interpretation's are matched by name.
  int32_t GetUnitIndex(const TDInterpretation& interpretation) const;
  /// The unit of the space axis by the kind of its interpretation.
  static int32_t GetSpaceUnitIndex(const TDInterpretation& interpretation);

  /// The content of graph's variable with everything but the values; false (with the reason) when the
  /// layout can't take the graph.
  bool MakeVariable(const TDGraph& graph, TMatlabLayout layout, const std::tm& now, TMatlabVariable& variable,
                    std::string& problem) const;

  /// "<caption>: too large for a MAT-file of Level 5 (N bytes, at most 2 GiB per variable)".
  static std::string TooLargeMessage(const std::string& caption, int64_t bytes);

private:
  /// The axis objects of each locked graph (null where it has none), indexed like the graphs.
  struct TAxisObjects {
    TData* SpectralTransformation = nullptr;
    TData* SpectralInterpretation = nullptr;
    TData* SpaceTransformation = nullptr;
    TData* SpaceInterpretation = nullptr;
  };
  std::vector<TAxisObjects> FAxisObjects;

  bool ExportGraph(const TDGraph& graph, TMatlabLayout layout, TBufferedWriting& buffer, TMCC* mcc);
};
