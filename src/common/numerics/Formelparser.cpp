// Formula parser: blank removal, brace and operator checks, unary minus, functions, conversion to reverse
// Polish notation by operator priorities, and a stack machine for evaluation.
#include "common/numerics/Formelparser.h"

#include "common/numerics/Numerics.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <numbers>

// ---------------------------------------------------------------------------------------------
// Function table

namespace {

double BesselJ1(double x) {
  // Rational approximation (Numerical Recipes bessj1), split at |x| = 8.
  const double ax = std::fabs(x);
  if (ax < 8.0) {
    const double y = x * x;
    const double ans1 =
        x * (72362614232.0 +
             y * (-7895059235.0 +
                  y * (242396853.1 + y * (-2972611.439 + y * (15704.48260 + y * (-30.16036606))))));
    const double ans2 =
        144725228442.0 +
        y * (2300535178.0 + y * (18583304.74 + y * (99447.43394 + y * (376.9991397 + y * 1.0))));
    return ans1 / ans2;
  }
  const double z = 8.0 / ax, y = z * z, xx = ax - 2.356194491;
  const double ans1 =
      1.0 + y * (0.183105e-2 + y * (-0.3516396496e-4 + y * (0.2457520174e-5 + y * (-0.240337019e-6))));
  const double ans2 = 0.04687499995 + y * (-0.2002690873e-3 +
                                           y * (0.8449199096e-5 + y * (-0.88228987e-6 + y * 0.105787412e-6)));
  double ans = std::sqrt(0.636619772 / ax) * (std::cos(xx) * ans1 - z * std::sin(xx) * ans2);
  return x < 0.0 ? -ans : ans;
}

double FPi(double) {
  return std::numbers::pi;
}
double FRndBox(double x) {
  return (Rnd() - 0.5) * x;
}
double FRndNormal(double x) {
  return RndGauss() * x;
}
double FCotan(double x) {
  return 1.0 / std::tan(x);
}
double FSinc(double x) {
  return std::fabs(x) < 1e-300 ? 1.0 : std::sin(x) / x;
}
double FSincSqr(double x) {
  if (std::fabs(x) < 1e-300) return 1.0;
  const double s = std::sin(x) / x;
  return s * s;
}
double FHeavyside(double x) {
  return x > 0 ? 1.0 : (x == 0 ? 0.5 : 0.0);
}
double FSign(double x) {
  return std::fabs(x) >= 1e-300 ? x / std::fabs(x) : 0.0;
}
double FAirySqr(double x) {
  if (std::fabs(x) < 1e-300) return 1.0;
  const double a = 2.0 * BesselJ1(x) / x;
  return a * a;
}
double FSin(double x) {
  return std::sin(x);
}
double FAsin(double x) {
  return std::asin(x);
}
double FCos(double x) {
  return std::cos(x);
}
double FAcos(double x) {
  return std::acos(x);
}
double FTan(double x) {
  return std::tan(x);
}
double FAtan(double x) {
  return std::atan(x);
}
long double FSinh(long double x) {
  return std::sinh(x);
}
long double FAsinh(long double x) {
  return std::asinh(x);
}
long double FCosh(long double x) {
  return std::cosh(x);
}
long double FAcosh(long double x) {
  return std::acosh(x);
}
long double FTanh(long double x) {
  return std::tanh(x);
}
long double FAtanh(long double x) {
  return std::atanh(x);
}
long double FLoge(long double x) {
  return std::log(x);
}
long double FLog10(long double x) {
  return std::log10(x);
}
long double FLog2(long double x) {
  return std::log2(x);
}
long double FExp(long double x) {
  return std::exp(x);
}
double FAbs(double x) {
  return std::fabs(x);
}
double FSqrt(double x) {
  return std::sqrt(x);
}
double FBesselJ1(double x) {
  return BesselJ1(x);
}

struct TFunctionTable {
  std::mutex Lock;
  std::vector<std::unique_ptr<TCustomParserFunction>> Owned;
  std::vector<TCustomParserFunction*> List;
};

TFunctionTable& Table() {
  static TFunctionTable table;
  return table;
}

std::string Upper(std::string s) {
  for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

} // namespace

double TParserFunctionDD::Func(double x, bool& undefined) const {
  const double r = FFunc(x);
  if (!std::isfinite(r)) {
    undefined = true;
    return 0.0;
  }
  return r;
}

double TParserFunctionLDLD::Func(double x, bool& undefined) const {
  const long double r = FFunc(static_cast<long double>(x));
  if (!std::isfinite(r) || std::fabs(r) > 1.7976931348623157e308L) {
    undefined = true;
    return 0.0;
  }
  return static_cast<double>(r);
}

void TCustomParserFunction::InitFunctions() {
  TFunctionTable& t = Table();
  std::lock_guard<std::mutex> lock(t.Lock);
  if (!t.List.empty()) return;
  auto dd = [&](const char* n, TParserFunctionDD::TFunc f) {
    t.Owned.emplace_back(new TParserFunctionDD(n, f));
  };
  auto ee = [&](const char* n, TParserFunctionLDLD::TFunc f) {
    t.Owned.emplace_back(new TParserFunctionEE(n, f));
  };
  dd("PI(", FPi);
  dd("RndBox(", FRndBox);
  dd("RndNormal(", FRndNormal);
  dd("SIN(", FSin);
  dd("ASIN(", FAsin);
  dd("COS(", FCos);
  dd("ACOS(", FAcos);
  dd("TAN(", FTan);
  dd("ATAN(", FAtan);
  dd("COTAN(", FCotan);
  ee("SINH(", FSinh);
  ee("ASINH(", FAsinh);
  ee("COSH(", FCosh);
  ee("ACOSH(", FAcosh);
  ee("TANH(", FTanh);
  ee("ATANH(", FAtanh);
  ee("LOGE(", FLoge);
  ee("LOG10(", FLog10);
  ee("LOG2(", FLog2);
  ee("EXP(", FExp);
  dd("ABS(", FAbs);
  dd("SQRT(", FSqrt);
  dd("SINC(", FSinc);
  dd("SINCSQR(", FSincSqr);
  dd("HEAVYSIDE(", FHeavyside);
  dd("Sign(", FSign);
  dd("AirySqr(", FAirySqr);
  dd("BESSELJ1(", FBesselJ1);
  for (auto& f : t.Owned) t.List.push_back(f.get());
  std::stable_sort(t.List.begin(), t.List.end(),
                   [](const TCustomParserFunction* a, const TCustomParserFunction* b) {
                     return a->Name().size() > b->Name().size();
                   });
}

void TCustomParserFunction::Sort() {
  TFunctionTable& t = Table();
  std::lock_guard<std::mutex> lock(t.Lock);
  std::stable_sort(t.List.begin(), t.List.end(),
                   [](const TCustomParserFunction* a, const TCustomParserFunction* b) {
                     return a->Name().size() > b->Name().size();
                   });
}

void TCustomParserFunction::DeleteFunctions() {
  TFunctionTable& t = Table();
  std::lock_guard<std::mutex> lock(t.Lock);
  t.List.clear();
  t.Owned.clear();
}

const std::vector<TCustomParserFunction*>& TCustomParserFunction::Functions() {
  InitFunctions();
  return Table().List;
}

int TCustomParserFunction::FindFunction(const std::string& name) {
  const auto& list = Functions();
  const std::string u = Upper(name);
  for (size_t i = 0; i < list.size(); ++i)
    if (Upper(list[i]->Name()) == u) return static_cast<int>(i);
  return -1;
}

// ---------------------------------------------------------------------------------------------
// Parser

namespace {

constexpr char kUnaryMinus = static_cast<char>(0xA7);
const std::string kOperatorChars = "!=|&><+-*/^%";

enum TOperatorCode : int {
  opMinus = 1,
  opPlus = 2,
  opMultiply = 3,
  opDivide = 4,
  opNegate = 5,
  opModulo = 6,
  opPower = 7,
  opOr = 8,
  opAnd = 9,
  opGreater = 10,
  opLess = 11,
  opEqual = 12,
  opNotEqual = 13,
};

int OperatorCode(char c) {
  switch (c) {
  case '|':
    return opOr;
  case '&':
    return opAnd;
  case '!':
    return opNotEqual;
  case '=':
    return opEqual;
  case '>':
    return opGreater;
  case '<':
    return opLess;
  case '+':
    return opPlus;
  case '-':
    return opMinus;
  case '%':
    return opModulo;
  case '*':
    return opMultiply;
  case '/':
    return opDivide;
  case '^':
    return opPower;
  default:
    return 0;
  }
}

int Priority(int code) {
  switch (code) {
  case opOr:
    return 1;
  case opAnd:
    return 2;
  case opNotEqual:
    return 3;
  case opEqual:
    return 4;
  case opGreater:
    return 5;
  case opLess:
    return 6;
  case opPlus:
  case opMinus:
    return 7;
  case opModulo:
    return 8;
  case opMultiply:
  case opDivide:
    return 9;
  case opNegate:
    return 10;
  case opPower:
    return 11;
  default:
    return 0;
  }
}

bool IsOperatorChar(char c) {
  return kOperatorChars.find(c) != std::string::npos;
}

// A number in the plain decimal form: digits, optional point and digits, optional exponent.
bool ParseNumber(const std::string& token, double& value) {
  size_t i = 0, n = token.size();
  bool digits = false;
  while (i < n && std::isdigit(static_cast<unsigned char>(token[i]))) ++i, digits = true;
  if (i < n && token[i] == '.') {
    ++i;
    while (i < n && std::isdigit(static_cast<unsigned char>(token[i]))) ++i, digits = true;
  }
  if (!digits) return false;
  if (i < n && (token[i] == 'E' || token[i] == 'e')) {
    ++i;
    if (i < n && (token[i] == '+' || token[i] == '-')) ++i;
    bool expDigits = false;
    while (i < n && std::isdigit(static_cast<unsigned char>(token[i]))) ++i, expDigits = true;
    if (!expDigits) return false;
  }
  if (i != n) return false;
  value = std::strtod(token.c_str(), nullptr);
  return true;
}

// Entry of the operator stack during conversion.
struct TPendingOp {
  enum TKind { Op, Paren, FunctionParen } Kind;
  int Code;
  const TCustomParserFunction* Function;
  int FunctionIndex;
};

} // namespace

TFormelParser::TFormelParser() : FXVector(2, 0.0) {}

TFormelParser::~TFormelParser() {
  ReleaseStack(FOwnStack);
}

void TFormelParser::ReleaseStack(double*& stack) {
  delete[] stack;
  stack = nullptr;
}

void TFormelParser::SetXDimension(int dimension) {
  FXDimension = std::max(dimension, 1);
  FXVector.assign(FXDimension + 1, 0.0);
  MakeExpr();
}

void TFormelParser::SetExpress(const std::string& expression) {
  FExpress = expression;
  MakeExpr();
}

void TFormelParser::SetXVector(int index, double value) {
  if (index >= 0 && index <= FXDimension) FXVector[index] = value;
}

double TFormelParser::GetXVector(int index) const {
  return (index >= 0 && index <= FXDimension) ? FXVector[index] : 0.0;
}

void TFormelParser::SetError(int position, const std::string& message) {
  FHasError = true;
  FValid = false;
  FErrorPosition = position;
  FMessage = message;
  FProgram.clear();
}

void TFormelParser::MakeExpr() {
  FProgram.clear();
  FHasError = false;
  FValid = false;
  FErrorPosition = 0;
  FMessage.clear();

  // Reserved characters: the marker characters of the compiled form may not appear in a formula.
  for (size_t i = 0; i < FExpress.size(); ++i) {
    const char c = FExpress[i];
    if (c == '{' || c == '$' || c == kUnaryMinus) {
      SetError(static_cast<int>(i) + 1, "Invalid character in formula !");
      return;
    }
  }
  std::string s;
  for (char c : FExpress)
    if (!std::isspace(static_cast<unsigned char>(c))) s += c;
  if (s.empty()) {
    FMessage = "There is no valid formula !";
    return;
  }
  const int n = static_cast<int>(s.size());

  // Braces balance and never go negative.
  int depth = 0;
  for (int i = 0; i < n; ++i) {
    if (s[i] == '(')
      ++depth;
    else if (s[i] == ')' && --depth < 0) {
      SetError(i + 1, "Wrong amount of opening/closing braces !");
      return;
    }
  }
  if (depth != 0) {
    SetError(n, "Wrong amount of opening/closing braces !");
    return;
  }

  // Unary minus: at the start or behind an operator or an opening brace.
  const std::string chsPredecessors = std::string("!=|&><+-*/^%(") + kUnaryMinus;
  for (int i = 0; i < n; ++i)
    if (s[i] == '-' && (i == 0 || chsPredecessors.find(s[i - 1]) != std::string::npos)) s[i] = kUnaryMinus;

  // Neighbouring operators, closing braces, last character.
  auto isNumberExponentSign = [&](int i) {
    // A sign directly behind the exponent letter of a number (1E-3) belongs to the number.
    if (i < 2 || (s[i - 1] != 'E' && s[i - 1] != 'e') || (s[i] != '+' && s[i] != '-')) return false;
    int j = i - 2;
    while (j >= 0 && (std::isdigit(static_cast<unsigned char>(s[j])) || s[j] == '.')) --j;
    const bool startsToken = j < 0 || IsOperatorChar(s[j]) || s[j] == '(' || s[j] == kUnaryMinus;
    return j < i - 2 && startsToken;
  };
  for (int i = 0; i + 1 < n; ++i) {
    const char a = s[i], b = s[i + 1];
    if (IsOperatorChar(a) && !isNumberExponentSign(i) && (IsOperatorChar(b) || b == ')')) {
      SetError(i + 2, "Operator or closing brace behind an operator !");
      return;
    }
    if (a == ')' && !(IsOperatorChar(b) || b == ')')) {
      SetError(i + 2, "Missing operator behind a closing brace !");
      return;
    }
    if (a == kUnaryMinus && (IsOperatorChar(b) || b == ')')) {
      SetError(i + 2, "Missing operand behind a minus sign !");
      return;
    }
  }
  if (IsOperatorChar(s[n - 1]) || s[n - 1] == kUnaryMinus) {
    SetError(n, "Operator at the end of the formula !");
    return;
  }

  // Conversion to reverse Polish notation by priorities.
  std::vector<TPendingOp> ops;
  std::string token;
  int tokenStart = 0;
  bool haveOperand = false; // the last thing read completes an operand
  bool failed = false;
  auto emit = [&](const TParserItem& item) {
    if (static_cast<int>(FProgram.size()) >= kMaxProgramLength - 1) {
      SetError(tokenStart + 1, "Formula too long !");
      failed = true;
      return;
    }
    FProgram.push_back(item);
  };
  auto pushOperand = [&]() {
    if (token.empty()) return;
    TParserItem item;
    if ((token[0] == 'x' || token[0] == 'X') && token.size() > 1 &&
        std::all_of(token.begin() + 1, token.end(),
                    [](char c) { return std::isdigit(static_cast<unsigned char>(c)); })) {
      const int index = std::atoi(token.c_str() + 1);
      if (index < 1 || index > FXDimension) {
        SetError(tokenStart + 1, "Variable out of range !");
        failed = true;
        return;
      }
      item.Kind = TParserItem::Variable;
      item.Code = index;
    } else {
      double v;
      if (!ParseNumber(token, v)) {
        SetError(tokenStart + 1, "Invalid number or variable !");
        failed = true;
        return;
      }
      item.Kind = TParserItem::Constant;
      item.Value = v;
    }
    emit(item);
    token.clear();
    haveOperand = true;
  };
  auto emitOp = [&](const TPendingOp& op) {
    TParserItem item;
    item.Kind = TParserItem::Operator;
    item.Code = op.Code;
    emit(item);
  };

  for (int i = 0; i < n && !failed; ++i) {
    const char c = s[i];
    if (c == '(') {
      if (!token.empty()) {
        const int index = TCustomParserFunction::FindFunction(token + "(");
        if (index < 0) {
          SetError(tokenStart + 1, "Unknown function !\n");
          return;
        }
        ops.push_back({TPendingOp::FunctionParen, 0, TCustomParserFunction::Functions()[index], index});
        token.clear();
      } else {
        if (haveOperand) {
          SetError(i + 1, "Missing operator before an opening brace !");
          return;
        }
        ops.push_back({TPendingOp::Paren, 0, nullptr, -1});
      }
      haveOperand = false;
    } else if (c == ')') {
      pushOperand();
      if (failed) return;
      if (!haveOperand) {
        SetError(i + 1, "Missing operand !");
        return;
      }
      while (!ops.empty() && ops.back().Kind == TPendingOp::Op) {
        emitOp(ops.back());
        ops.pop_back();
      }
      const TPendingOp open = ops.back();
      ops.pop_back();
      if (open.Kind == TPendingOp::FunctionParen) {
        TParserItem item;
        item.Kind = TParserItem::Function;
        item.Code = open.FunctionIndex;
        item.FunctionPtr = open.Function;
        emit(item);
      }
      haveOperand = true;
    } else if (c == kUnaryMinus) {
      if (!token.empty() || haveOperand) {
        SetError(i + 1, "Missing operator !");
        return;
      }
      ops.push_back({TPendingOp::Op, opNegate, nullptr, -1});
    } else if (IsOperatorChar(c) && !isNumberExponentSign(i)) {
      pushOperand();
      if (failed) return;
      if (!haveOperand) {
        SetError(i + 1, "Missing operand !");
        return;
      }
      const int code = OperatorCode(c);
      while (!ops.empty() && ops.back().Kind == TPendingOp::Op &&
             Priority(ops.back().Code) >= Priority(code)) {
        emitOp(ops.back());
        ops.pop_back();
      }
      ops.push_back({TPendingOp::Op, code, nullptr, -1});
      haveOperand = false;
    } else {
      if (haveOperand && token.empty()) {
        SetError(i + 1, "Missing operator !");
        return;
      }
      if (token.empty()) tokenStart = i;
      token += c;
    }
  }
  if (failed) return;
  pushOperand();
  if (failed) return;
  while (!ops.empty()) {
    emitOp(ops.back());
    ops.pop_back();
  }
  if (failed) return;
  // Check the program: every operator finds its operands and one value remains.
  int stackDepth = 0;
  for (const TParserItem& item : FProgram) {
    if (item.Kind == TParserItem::Variable || item.Kind == TParserItem::Constant)
      ++stackDepth;
    else if (item.Kind == TParserItem::Operator && item.Code != opNegate)
      --stackDepth;
    if (stackDepth < 1) {
      SetError(n, "Syntax error !");
      return;
    }
  }
  if (stackDepth != 1) {
    SetError(n, "Syntax error !");
    return;
  }
  TParserItem end;
  end.Kind = TParserItem::End;
  FProgram.push_back(end);
  FValid = true;
}

namespace {

// One binary operator; undefined is set (and 0 returned) where the operation has no value.
inline double ApplyOperator(int code, double a, double b, bool& undefined) {
  switch (code) {
  case opMinus:
    return a - b;
  case opPlus:
    return a + b;
  case opMultiply:
    return a * b;
  case opDivide:
    if (b == 0.0) {
      undefined = true;
      return 0.0;
    }
    return a / b;
  case opModulo: {
    const double ta = std::trunc(a), tb = std::trunc(b);
    if (tb == 0.0) {
      undefined = true;
      return 0.0;
    }
    return std::fmod(ta, tb);
  }
  case opPower:
    if (a < 0.0 && b != std::trunc(b)) {
      undefined = true;
      return 0.0;
    }
    return std::pow(a, b);
  case opOr:
    return (a != 0.0 || b != 0.0) ? 1.0 : 0.0;
  case opAnd:
    return (a != 0.0 && b != 0.0) ? 1.0 : 0.0;
  case opGreater:
    return a > b ? 1.0 : 0.0;
  case opLess:
    return a < b ? 1.0 : 0.0;
  case opEqual:
    return a == b ? 1.0 : 0.0;
  case opNotEqual:
    return a != b ? 1.0 : 0.0;
  default:
    return 0.0;
  }
}

} // namespace

double TFormelParser::MulticoreFunc(const double* x, bool& undefined, double*& stack) const {
  undefined = false;
  if (!FValid) {
    undefined = true;
    return 0.0;
  }
  if (!stack) stack = new double[kMaxProgramLength + 1];
  int top = -1;
  for (const TParserItem* it = FProgram.data();; ++it) {
    switch (it->Kind) {
    case TParserItem::End:
      return top >= 0 ? stack[top] : 0.0;
    case TParserItem::Constant:
      stack[++top] = it->Value;
      break;
    case TParserItem::Variable:
      stack[++top] = x[it->Code];
      break;
    case TParserItem::Function:
      stack[top] = it->FunctionPtr->Func(stack[top], undefined);
      if (undefined) return 0.0;
      break;
    case TParserItem::Operator: {
      if (it->Code == opNegate) {
        stack[top] = -stack[top];
        break;
      }
      const double b = stack[top--];
      stack[top] = ApplyOperator(it->Code, stack[top], b, undefined);
      if (undefined) return 0.0;
      break;
    }
    default:
      return 0.0;
    }
  }
}

void TFormelParser::BlockFunc(const double* const* x, int count, double* out, bool* undefined,
                              std::vector<double>& scratch) const {
  if (count <= 0) return;
  std::fill(undefined, undefined + count, !FValid);
  if (!FValid) {
    std::fill(out, out + count, 0.0);
    return;
  }
  // The deepest the stack gets, so that the scratch holds one row of count values per level.
  int depth = 0, maxDepth = 1;
  for (const TParserItem& item : FProgram) {
    if (item.Kind == TParserItem::Constant || item.Kind == TParserItem::Variable)
      maxDepth = std::max(maxDepth, ++depth);
    if (item.Kind == TParserItem::Operator && item.Code != opNegate) --depth;
  }
  const size_t n = static_cast<size_t>(count);
  if (scratch.size() < n * static_cast<size_t>(maxDepth)) scratch.resize(n * static_cast<size_t>(maxDepth));
  int top = -1;
  auto row = [&](int level) { return scratch.data() + static_cast<size_t>(level) * n; };
  for (const TParserItem* it = FProgram.data(); it->Kind != TParserItem::End; ++it) {
    switch (it->Kind) {
    case TParserItem::Constant:
      ++top;
      std::fill(row(top), row(top) + n, it->Value);
      break;
    case TParserItem::Variable:
      ++top;
      std::copy(x[it->Code], x[it->Code] + n, row(top));
      break;
    case TParserItem::Function: {
      double* values = row(top);
      for (size_t k = 0; k < n; ++k) {
        bool failed = false;
        values[k] = it->FunctionPtr->Func(values[k], failed);
        undefined[k] = undefined[k] || failed;
      }
      break;
    }
    case TParserItem::Operator: {
      double* a = row(top);
      if (it->Code == opNegate) {
        for (size_t k = 0; k < n; ++k) a[k] = -a[k];
        break;
      }
      const double* b = row(top);
      a = row(--top);
      // The common operators as plain loops the compiler vectorises; the rest one by one.
      switch (it->Code) {
      case opPlus:
        for (size_t k = 0; k < n; ++k) a[k] += b[k];
        break;
      case opMinus:
        for (size_t k = 0; k < n; ++k) a[k] -= b[k];
        break;
      case opMultiply:
        for (size_t k = 0; k < n; ++k) a[k] *= b[k];
        break;
      default:
        for (size_t k = 0; k < n; ++k) {
          bool failed = false;
          a[k] = ApplyOperator(it->Code, a[k], b[k], failed);
          undefined[k] = undefined[k] || failed;
        }
        break;
      }
      break;
    }
    default:
      break;
    }
  }
  const double* result = top >= 0 ? row(top) : nullptr;
  for (size_t k = 0; k < n; ++k) out[k] = (undefined[k] || !result) ? 0.0 : result[k];
}

double TFormelParser::Func(const double* x) {
  return MulticoreFunc(x, FUnDefined, FOwnStack);
}

double TFormelParser::GetFunc() {
  return MulticoreFunc(FXVector.data(), FUnDefined, FOwnStack);
}
