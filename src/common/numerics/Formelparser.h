// Formula parser: compiles a formula over x1, x2, ... into a reverse Polish program once and evaluates it
// many times, also from many threads at once, with a global table of named functions.
#pragma once

#include <string>
#include <vector>

/// A named function of one argument as the formula calls it (the name includes the opening parenthesis,
/// e.g. "SIN("). Evaluation is const and reentrant; an undefined result is reported through the flag.
class TCustomParserFunction {
public:
  explicit TCustomParserFunction(std::string name) : FName(std::move(name)) {}
  TCustomParserFunction(const TCustomParserFunction&) = delete;
  TCustomParserFunction& operator=(const TCustomParserFunction&) = delete;
  virtual ~TCustomParserFunction() = default;

  const std::string& Name() const { return FName; }
  /// The function's value; sets undefined for an argument outside its domain or a non-finite result.
  virtual double Func(double x, bool& undefined) const = 0;

  /// Fills the global function list once (further calls do nothing while it exists).
  static void InitFunctions();
  /// Orders the list by falling name length, so that no name is found inside a longer one.
  static void Sort();
  /// Frees the list (at shutdown: compiled parsers point into it); the next use fills it again.
  static void DeleteFunctions();
  /// The global list (filled on first use).
  static const std::vector<TCustomParserFunction*>& Functions();
  /// Index of a name (with its parenthesis, compared without regard to case) or -1.
  static int FindFunction(const std::string& name);

private:
  std::string FName;
};

/// A function from double to double.
class TParserFunctionDD : public TCustomParserFunction {
public:
  using TFunc = double (*)(double);
  TParserFunctionDD(std::string name, TFunc f) : TCustomParserFunction(std::move(name)), FFunc(f) {}
  double Func(double x, bool& undefined) const override;

private:
  TFunc FFunc;
};

/// A function from long double to long double.
class TParserFunctionLDLD : public TCustomParserFunction {
public:
  using TFunc = long double (*)(long double);
  TParserFunctionLDLD(std::string name, TFunc f) : TCustomParserFunction(std::move(name)), FFunc(f) {}
  double Func(double x, bool& undefined) const override;

private:
  TFunc FFunc;
};

/// A function in extended precision (long double on this platform).
class TParserFunctionEE : public TParserFunctionLDLD {
public:
  using TParserFunctionLDLD::TParserFunctionLDLD;
};

/// One item of a compiled program.
struct TParserItem {
  enum TKind : int { Operator = 0, Function = 1, Variable = 2, Constant = 3, End = 4 };
  int Kind = End;
  int Code = 0; ///< operator code, function index or variable index
  double Value = 0.0;
  const TCustomParserFunction* FunctionPtr = nullptr;
};

/// The formula parser. Compile on one thread with SetExpress; afterwards MulticoreFunc writes nothing of
/// the parser and serves any number of threads.
class TFormelParser {
public:
  TFormelParser();
  TFormelParser(const TFormelParser&) = delete;
  TFormelParser& operator=(const TFormelParser&) = delete;
  virtual ~TFormelParser();

  /// Number of variables x1..xN; resizes the own x vector (index 0 unused) and compiles the formula again.
  void SetXDimension(int dimension);
  int GetXDimension() const { return FXDimension; }
  /// Sets the formula and compiles it at once.
  void SetExpress(const std::string& expression);
  const std::string& GetExpress() const { return FExpress; }
  void SetXVector(int index, double value);
  double GetXVector(int index) const;

  /// Evaluates with the own x vector (not for concurrent use).
  double GetFunc();
  /// Evaluates with x[1..N] (not for concurrent use); UnDefined tells the outcome.
  double Func(const double* x);
  bool UnDefined() const { return FUnDefined; }
  /// Evaluates with x[1..N] using only its arguments. stack is allocated on the first call and kept by the
  /// caller, who frees it with ReleaseStack.
  double MulticoreFunc(const double* x, bool& undefined, double*& stack) const;
  static void ReleaseStack(double*& stack);
  /// Evaluates count sets of variables at once, x[i][k] being variable i (1..N) of set k: out[k] gets the
  /// value, undefined[k] whether it has none (then out[k] is 0). scratch belongs to the caller (one per
  /// thread) and is grown as needed; like MulticoreFunc it writes nothing of the parser.
  void BlockFunc(const double* const* x, int count, double* out, bool* undefined,
                 std::vector<double>& scratch) const;

  bool HasError() const { return FHasError; }
  /// 1-based position in the formula without blanks at which the error was found (0: none).
  int GetErrorPosition() const { return FErrorPosition; }
  const std::string& GetMessage() const { return FMessage; }
  /// True when a formula compiled without error.
  bool IsValid() const { return FValid; }
  int GetProgramLength() const { return static_cast<int>(FProgram.size()); }

  static constexpr int kMaxProgramLength = 1000;

private:
  void MakeExpr();
  void SetError(int position, const std::string& message);

  std::string FExpress;
  int FErrorPosition = 0;
  int FXDimension = 1;
  std::vector<double> FXVector;
  std::string FMessage;
  bool FHasError = false;
  bool FValid = false;
  bool FUnDefined = false;
  std::vector<TParserItem> FProgram;
  double* FOwnStack = nullptr;
};
