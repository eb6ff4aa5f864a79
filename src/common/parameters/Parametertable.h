// Parameters declared once: a table of declarations (name, caption, kind, default, limits, step, unit,
// choices) that becomes user parameters, and bindings of a table to the fields of an object, through
// which the object's settings are saved, loaded, set from text and described by the generic routines.
#pragma once

#include "common/Tagcontrol.h"
#include "common/parameters/Userparameteradministrator.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// What a declared parameter holds; the parameter class follows from it.
enum class TParameterKind {
  Int,     ///< TUserIntParameter
  Float,   ///< TUserDoubleParameter (double precision)
  Bool,    ///< TUserBoolParameter
  String,  ///< TUserStringParameter
  List,    ///< TUserListParameter: one of the choices
  Trigger, ///< TUserTriggerParameter: a command, no value
};

/// One entry of a list parameter: what the user reads and the number the program keeps.
struct TParameterChoice {
  std::string Text;
  int32_t Number = 0;
};

/// One declared parameter. The setters return the declaration so that a table reads as a list.
struct TParameterDeclaration {
  std::string Name;    ///< tag name and the name of "name=value"
  std::string Caption; ///< label in forms
  TParameterKind Kind = TParameterKind::Int;
  std::string Description;
  std::string Unit;
  double DefaultNumber = 0; ///< int, float, bool (0 or 1) and list (the choice's number)
  std::string DefaultText;  ///< string
  bool HasLowerLimit = false;
  bool HasUpperLimit = false;
  double LowerLimit = 0;
  double UpperLimit = 0;
  double Step = 0; ///< small increment (0: the kind's own); the large one is ten steps
  std::vector<TParameterChoice> Choices;
  bool Saved = true; ///< false: the value is not written with the settings, and a load keeps it
  /// A string in the mask text form over the spectral points of the input graph ("all", "lo:hi", ...):
  /// tool windows show a mask toolbar for it and its bands over the preview spectrum.
  bool SpectralMask = false;

  TParameterDeclaration& SetLimits(double lower, double upper);
  TParameterDeclaration& SetLowerLimit(double lower);
  TParameterDeclaration& SetUpperLimit(double upper);
  TParameterDeclaration& SetStep(double step);
  TParameterDeclaration& SetUnit(const std::string& unit);
  TParameterDeclaration& SetDescription(const std::string& description);
  TParameterDeclaration& SetSaved(bool saved);
  /// Marks a string parameter as a mask over spectral points; a programming error for other kinds.
  TParameterDeclaration& SetSpectralMask();
};

/// The declarations of one component (a tool, a viewer, a fit function, an export filter), in the order
/// its parameters are shown and saved. As a TParameterCollection it fills an administrator.
class TParameterTable : public TParameterCollection {
public:
  /// Ids of the created parameters are firstId, firstId + 1, ... in declaration order.
  explicit TParameterTable(int32_t firstId = 1) : FFirstId(firstId) {}

  /// @{ Declares a parameter. An empty name, or one that is already declared, is a programming error
  /// and raises OrvexException.
  TParameterDeclaration& AddInt(const std::string& name, const std::string& caption, int32_t defaultValue);
  TParameterDeclaration& AddFloat(const std::string& name, const std::string& caption, double defaultValue);
  TParameterDeclaration& AddBool(const std::string& name, const std::string& caption, bool defaultValue);
  TParameterDeclaration& AddString(const std::string& name, const std::string& caption,
                                   const std::string& defaultValue);
  /// The default is the number of one of the choices; limits span the choices' numbers, so that a
  /// stored number outside them is pulled to the nearest end as with any limited number.
  TParameterDeclaration& AddList(const std::string& name, const std::string& caption, int32_t defaultNumber,
                                 const std::vector<TParameterChoice>& choices);
  TParameterDeclaration& AddTrigger(const std::string& name, const std::string& caption);
  /// @}

  const std::vector<TParameterDeclaration>& GetDeclarations() const { return FDeclarations; }
  /// Null when no declaration has the name.
  const TParameterDeclaration* FindDeclaration(const std::string& name) const;
  int32_t GetFirstId() const { return FFirstId; }

  /// The user parameter of one declaration, holding its default.
  std::unique_ptr<TUserParameter> CreateParameter(const TParameterDeclaration& declaration, int32_t id) const;
  /// Adds one parameter per declaration, in order.
  void CreateParameters(TUserParameterAdministrator& administrator) override;

  /// The check across parameters ("the lower bound lies below the upper one"): problems of the values
  /// as they stand, each naming the parameter the user should change. A set of "name=value" whose
  /// result fails it is taken back whole.
  using TCrossCheck = std::function<TUserParameterProblems(const TUserParameterAdministrator&)>;
  void SetCrossCheck(TCrossCheck check) { FCrossCheck = std::move(check); }
  TUserParameterProblems ValidateParameters(const TUserParameterAdministrator& administrator) const override {
    return FCrossCheck ? FCrossCheck(administrator) : TUserParameterProblems();
  }

private:
  TParameterDeclaration& Add(TParameterDeclaration declaration);

  int32_t FFirstId;
  std::vector<TParameterDeclaration> FDeclarations;
  TCrossCheck FCrossCheck;
};

/// A table tied to the fields of one object: the generic routines work on the object's settings through
/// an administrator that holds them for the moment of the call. Reading the fields stays plain member
/// access, so no calculation pays for the table. An empty binding has no parameters at all.
class TParameterBinding {
public:
  using TToParameters = std::function<void(TUserParameterAdministrator&)>;
  using TFromParameters = std::function<void(const TUserParameterAdministrator&)>;

  TParameterBinding() = default;
  /// toParameters sets the object's values into the parameters that the table created (silently);
  /// fromParameters takes them back (null: the binding only reads the object).
  TParameterBinding(const TParameterTable& table, TToParameters toParameters, TFromParameters fromParameters);

  bool IsEmpty() const { return FTable == nullptr; }
  const TParameterTable* GetTable() const { return FTable; }

  /// Replaces the content of administrator with the declared parameters holding the object's values
  /// (after those that its OnCreateParameters adds, if it has that event).
  void CreateParameters(TUserParameterAdministrator& administrator) const;
  /// A new administrator with the declared parameters holding the object's values.
  std::unique_ptr<TUserParameterAdministrator> MakeParameters() const;
  /// The object takes the values of an administrator that CreateParameters filled.
  void ReadParameters(const TUserParameterAdministrator& administrator) const;

  /// @{ The values as value tags (see TUserParameterAdministrator): into the tag open in file, from the
  /// children of parent, and the same on a tree. A load gives missing values their declared default and
  /// pulls values outside the limits to the nearest limit.
  TTagError SaveToFile(TFileHandle file) const;
  TTagError LoadFromFile(TFileHandle file, const TTagControl& parent) const;
  TTagError SaveToTagControl(TTagControl& tag) const;
  TTagError LoadFromTagControl(const TTagControl& tag) const;
  /// @}
  /// "name=value" assignments: every problem is returned, and the object changes only when there is none.
  TUserParameterProblems SetFromText(const std::vector<std::string>& assignments) const;
  /// Pulls every value into its limits.
  void ApplyLimits() const;
  /// Every value to its declared default.
  void ResetToDefaults() const;

private:
  const TParameterTable* FTable = nullptr;
  TToParameters FToParameters;
  TFromParameters FFromParameters;
};

/// A table whose declarations name the fields of class C that hold the values. Declare once, then
/// Bind(object) gives the generic routines for any object of the class.
template <class C>
class TBoundParameterTable {
public:
  explicit TBoundParameterTable(int32_t firstId = 1) : FTable(firstId) {}

  TParameterDeclaration& Int(int32_t C::*field, const std::string& name, const std::string& caption,
                             int32_t defaultValue) {
    AddAccess<TUserIntParameter>(field);
    return FTable.AddInt(name, caption, defaultValue);
  }
  TParameterDeclaration& Float(double C::*field, const std::string& name, const std::string& caption,
                               double defaultValue) {
    AddAccess<TUserDoubleParameter>(field);
    return FTable.AddFloat(name, caption, defaultValue);
  }
  TParameterDeclaration& Bool(bool C::*field, const std::string& name, const std::string& caption,
                              bool defaultValue) {
    AddAccess<TUserBoolParameter>(field);
    return FTable.AddBool(name, caption, defaultValue);
  }
  TParameterDeclaration& String(std::string C::*field, const std::string& name, const std::string& caption,
                                const std::string& defaultValue) {
    AddAccess<TUserStringParameter>(field);
    return FTable.AddString(name, caption, defaultValue);
  }
  TParameterDeclaration& List(int32_t C::*field, const std::string& name, const std::string& caption,
                              int32_t defaultNumber, const std::vector<TParameterChoice>& choices) {
    AddAccess<TUserIntParameter>(field); // a list parameter is an int parameter
    return FTable.AddList(name, caption, defaultNumber, choices);
  }

  const TParameterTable& GetTable() const { return FTable; }
  /// See TParameterTable::SetCrossCheck.
  void SetCrossCheck(TParameterTable::TCrossCheck check) { FTable.SetCrossCheck(std::move(check)); }

  /// The generic routines on object's fields; object must outlive the binding.
  TParameterBinding Bind(C& object) const {
    return TParameterBinding(
        FTable, [this, &object](TUserParameterAdministrator& a) { CopyIn(object, a); },
        [this, &object](const TUserParameterAdministrator& a) { CopyOut(a, object); });
  }
  /// Read-only binding: saving, describing; loads and sets leave the object alone.
  TParameterBinding Bind(const C& object) const {
    return TParameterBinding(
        FTable, [this, &object](TUserParameterAdministrator& a) { CopyIn(object, a); }, nullptr);
  }

private:
  struct TAccess {
    std::function<void(const C&, TUserParameter&)> In;
    std::function<void(const TUserParameter&, C&)> Out;
  };

  template <class P, class V>
  void AddAccess(V C::*field) {
    FAccess.push_back({[field](const C& object, TUserParameter& p) {
                         static_cast<P&>(p).SetParameterSilent(object.*field);
                       },
                       [field](const TUserParameter& p, C& object) {
                         object.*field = static_cast<const P&>(p).GetCurrentValue();
                       }});
  }
  // The parameters are found by the ids the table gave them, so that an administrator may hold others.
  void CopyIn(const C& object, TUserParameterAdministrator& administrator) const {
    for (size_t i = 0; i < FAccess.size(); ++i)
      if (TUserParameter* p = administrator.GetUserParameter(FTable.GetFirstId() + static_cast<int32_t>(i)))
        FAccess[i].In(object, *p);
  }
  void CopyOut(const TUserParameterAdministrator& administrator, C& object) const {
    for (size_t i = 0; i < FAccess.size(); ++i)
      if (const TUserParameter* p =
              administrator.GetUserParameter(FTable.GetFirstId() + static_cast<int32_t>(i)))
        FAccess[i].Out(*p, object);
  }

  TParameterTable FTable;
  std::vector<TAccess> FAccess;
};
