// Export of images and graphs as text: header lines starting with "# ", then the values in the C locale with
// at least nine significant digits, so that a float read back is the float written.
#pragma once

#include "exchange/Exportfilter.h"

#include <string>
#include <vector>

class TDGraph;
class TDImage;

/// What the two text filters share: the separator ("Separator": Tab, Comma, Semicolon, Blank) and the
/// header switch ("Header"), one file per object.
class TExportFilterASCII : public TExportFilter {
public:
  using TExportFilter::TExportFilter;

  void GetFileFilter(std::string& filter, std::string& extension) const override;
  const TParameterTable& GetParameterTable() const override { return ParameterTable(); }
  static const TParameterTable& ParameterTable();

  /// A float with nine significant digits, a double as the shortest text that reads back to it.
  static void AppendFloat(std::string& line, float value);
  static void AppendDouble(std::string& line, double value);

protected:
  /// Checks every object with accept (which returns the reason of a refusal, empty when fine).
  bool CheckObjects(const TIntList& ids, const std::function<std::string(const TData&)>& accept);
  char Separator() const;
  /// Writes the objects one file each through write(object, buffer); a failed file is removed.
  void ExportEach(TMCC* mcc, const std::function<bool(const TData&, TBufferedWriting&)>& write);
};

/// "Image ASCII": Y lines of X values, y = 0 first.
class TExportFilterImageASCII : public TExportFilterASCII {
public:
  TExportFilterImageASCII() : TExportFilterASCII("Image ASCII") {}
  bool IsIDListOkay(const TIntList& ids) override;
  void DoExport(TMCC* mcc) override;
  std::vector<std::string> GetAcceptedClasses() const override { return {"TDImage"}; }
  bool WriteImage(const TDImage& image, TBufferedWriting& out, TMCC* mcc);
};

/// "Graph ASCII": one line per point, the axis value in the graph's current unit, then the value of each
/// spectrum of a valid line in element order (x + y·SizeX).
class TExportFilterGraphASCII : public TExportFilterASCII {
public:
  TExportFilterGraphASCII() : TExportFilterASCII("Graph ASCII") {}
  bool IsIDListOkay(const TIntList& ids) override;
  void DoExport(TMCC* mcc) override;
  std::vector<std::string> GetAcceptedClasses() const override { return {"TDGraph"}; }
  bool WriteGraph(const TDGraph& graph, TBufferedWriting& out, TMCC* mcc);
};
