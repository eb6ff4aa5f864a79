// The filter extraction engine: runs graph filters (single values over a spectral range) and filter data
// objects over every spectrum of a graph on a team of threads, each spectrum read once into the thread's
// own buffer, and turns the values into result objects: an image per filter output, a one-spectrum
// profile graph for a line scan, a text of the values for a single spectrum.
#pragma once

#include "data/Dcustom.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class IDataProject;
class TDFilter;
class TDGraph;
class TGraphFilter;
class TMCC;
enum class TGraphFilterRangeStatus;

/// What the values of a graph become.
enum class TFilterResultShape {
  Image,   ///< one value per pixel of a map
  Profile, ///< a line scan (one line of several pixels): a one-spectrum graph along the line
  Values,  ///< a single spectrum: the values as text
};
TFilterResultShape GetFilterResultShape(const TDGraph& input);

class TFilterExtraction {
public:
  explicit TFilterExtraction(const TDGraph& input);
  ~TFilterExtraction();
  TFilterExtraction(const TFilterExtraction&) = delete;
  TFilterExtraction& operator=(const TFilterExtraction&) = delete;

  /// A graph filter whose settings are committed (CopyParamsForThread) on this input: one output. The
  /// filter is read, never changed, and must outlive Run.
  void AddGraphFilter(const TGraphFilter& filter);
  /// A filter data object prepared for this input (PrepareCalculationForGraph): one output per parameter.
  /// Each thread calculates with its own clone; the object itself is not touched.
  void AddDataFilter(const TDFilter& filter);
  int32_t GetOutputCount() const { return static_cast<int32_t>(FOutputCaptions.size()); }
  /// "Sum" for a graph filter, the parameter caption for a filter object's output.
  const std::string& GetOutputCaption(int32_t output) const;

  /// Calculates every output for every spectrum on valid lines (others stay 0) on threads named caption.
  /// False after a cancel (the values are then incomplete). A value that isn't finite in the part of a
  /// spectrum the filters read raises OrvexException naming the graph and the pixel.
  bool Run(const std::string& caption = "Filter Extraction");

  /// Output values at x + y * sizeX, as floats (SafeDoubleToFloat).
  const std::vector<float>& GetValues(int32_t output) const;
  /// A result line is valid when the input line was valid and all of its pixels were calculated.
  bool GetLineValid(int32_t y) const;
  /// The pixels of the spectra the filters read: first and count (the whole spectrum when a filter needs
  /// it, e.g. a width or a filter object).
  void GetPixelRangeRead(int32_t& first, int32_t& count) const;

  /// The result object of one output for an image or a line scan: a new image of the input's pixel grid, or
  /// a one-spectrum graph of sizeX points; with the given caption, not added to the project. Null for a
  /// single spectrum (see MakeValuesText).
  std::unique_ptr<TData> CreateResultObject(IDataProject& project, int32_t output,
                                            const std::string& caption) const;
  /// For a single spectrum: one line "caption<TAB>value" per output.
  std::string MakeValuesText() const;

private:
  struct TItem {
    const TGraphFilter* Graph = nullptr;
    const TDFilter* Data = nullptr;
    int32_t FirstOutput = 0;
  };
  void CalculateThread(TMCC* mcc, int threadIndex);
  void NoteProblem(const std::string& problem);

  const TDGraph& FInput;
  int32_t FSizeX, FSizeY, FLength;
  std::vector<TItem> FItems;
  std::vector<std::string> FOutputCaptions;
  std::vector<std::vector<float>> FValues;
  std::unique_ptr<std::atomic<int32_t>[]> FLineDone; ///< per line: the pixels calculated
  int32_t FReadFirst = 0, FReadCount = 0;
  bool FReadPart = false; ///< only FReadFirst..+FReadCount is read
  int32_t FCheckFirst = 0, FCheckCount = 0;
  bool FComplete = false;
  std::string FProblem;
  std::mutex FProblemLock;
};

/// @{ Texts of the extraction's results and messages.
/// `graph "caption" (ID n)`.
std::string FilterGraphName(const TDGraph& graph);
/// A number with up to ten digits.
std::string FilterNumberText(double value);
/// The caption of a result whose filter has none of its own: the graph's, with what was reduced where.
std::string FilterResultCaption(const TDGraph& graph, const std::string& what, const std::string& where);
/// Why a committed filter can't run on graph (its range off the axis, a unit the axis lacks, bad settings);
/// empty when it can.
std::string GraphFilterRangeProblem(TGraphFilterRangeStatus status, const TGraphFilter& filter,
                                    const TDGraph& graph);
/// @}

/// The result objects of graph filters over one graph: an image (map) or a profile graph (line scan) per
/// filter, or for a single spectrum one text of the values (also in ValuesText). Not added to a project.
struct TGraphFilterResults {
  std::vector<std::unique_ptr<TData>> Objects;
  std::string ValuesText;
};
/// Runs clones of the filters (their working settings committed) over every spectrum of graph on a team of
/// threads named runCaption and makes the result objects. A range that can't be used raises OrvexException
/// with runCaption and the problem; false after a cancel (results then empty).
bool ExtractGraphFilters(IDataProject& project, TDGraph& graph,
                         const std::vector<const TGraphFilter*>& filters, const std::string& runCaption,
                         TGraphFilterResults& results);
