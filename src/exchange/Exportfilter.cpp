// The export filter base, its target and the write buffer.
#include "exchange/Exportfilter.h"

#include "common/OrvexException.h"
#include "data/Dcustom.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

// ---------------------------------------------------------------------------------------------------------
// TBufferedWriting

TBufferedWriting::TBufferedWriting(int64_t bufferSize, TWriteCallback callback)
    : FBuffer(static_cast<size_t>(std::max<int64_t>(bufferSize, 1))), FCallback(std::move(callback)) {}

bool TBufferedWriting::Write(const void* data, int64_t size) {
  if (FFailed) return false;
  const char* bytes = static_cast<const char*>(data);
  const int64_t capacity = static_cast<int64_t>(FBuffer.size());
  while (size > 0) {
    if (size >= capacity) {
      // A long run passes the buffer: what is buffered goes first, the run itself is not copied at all.
      if (!FlushBuffer()) return false;
      if (!FCallback(bytes, size)) {
        FFailed = true;
        return false;
      }
      FBytesWritten += size;
      return true;
    }
    const int64_t part = std::min(size, capacity - FFill);
    std::memcpy(FBuffer.data() + FFill, bytes, static_cast<size_t>(part));
    FFill += part;
    FBytesWritten += part;
    bytes += part;
    size -= part;
    if (FFill == capacity && !FlushBuffer()) return false;
  }
  return true;
}

bool TBufferedWriting::FlushBuffer() {
  if (FFailed) return false;
  if (FFill > 0 && !FCallback(FBuffer.data(), FFill)) FFailed = true;
  FFill = 0;
  return !FFailed;
}

void TBufferedWriting::Reset() {
  FFill = 0;
  FFailed = false;
  FBytesWritten = 0;
}

// ---------------------------------------------------------------------------------------------------------
// TExportFilterTarget

TExportFilterTarget::TExportFilterTarget(std::vector<std::string> fileNames, int64_t maxSize)
    : FFileNames(std::move(fileNames)), FClipboard(FFileNames.empty()),
      FMaxSize(std::max<int64_t>(maxSize, 0)) {}

TExportFilterTarget::~TExportFilterTarget() {
  // A file not closed explicitly is incomplete: it never replaces anything.
  CleanupCurrentStream();
}

void TExportFilterTarget::AddError(const std::string& text) {
  if (FOwner) FOwner->AddError(text);
}

bool TExportFilterTarget::NextStream() {
  // The previous file is put in place with its size before the counts start anew.
  const bool closed = CloseCurrentStream();
  FPosition = FEnd = 0;
  FWriteFailed = false;
  if (FClipboard) {
    if (FMemory) return false;
    try {
      FMemory = std::make_unique<TMemoryByteStream>();
    } catch (const std::bad_alloc&) {
      AddError("Could not create Memory Stream");
      return false;
    }
    return true;
  }
  if (!closed) return false;
  if (FNextIndex >= static_cast<int>(FFileNames.size())) return false;
  FCurrentIndex = FNextIndex++;
  auto writer = std::make_unique<TSafeFileWriter>();
  // Export files are flushed like every other file: an export that reports success is on the disk.
  TSafeWriteOptions options;
  options.SyncToDisk = FSyncToDisk;
  if (writer->Open(FFileNames[static_cast<size_t>(FCurrentIndex)], options) < 1) {
    AddError("Could not create file: " + writer->ErrorText());
    FCurrentIndex = -1;
    return false;
  }
  FWriter = std::move(writer);
  return true;
}

bool TExportFilterTarget::SkipStream() {
  if (FClipboard || !CloseCurrentStream()) return false;
  FPosition = FEnd = 0;
  FWriteFailed = false;
  if (FNextIndex >= static_cast<int>(FFileNames.size())) return false;
  ++FNextIndex;
  return true;
}

bool TExportFilterTarget::WriteToStream(const void* data, int64_t size) {
  if (FWriteFailed) return false;
  if (size <= 0) return true;
  if (FMaxSize > 0 && FPosition + size >= FMaxSize) {
    AddError("Could not write data (maximum export size exceeded)");
    FWriteFailed = true;
    return false;
  }
  bool ok = false;
  if (FClipboard) {
    if (FMemory) {
      try {
        FMemory->SetPosition(FPosition);
        ok = FMemory->WriteBytes(data, size) == size;
      } catch (const std::bad_alloc&) {
        ok = false;
      }
    }
    if (!ok) AddError("Could not write data (not enough memory available)");
  } else {
    ok = FWriter && WriteAllBytes(FWriter->Handle(), data, size);
    // After Ctrl-C every write of the process fails on purpose: that is a cancel, not a full disk.
    if (!ok && !SafeWritesAborted()) {
      const int error = LastFileError();
      AddError(error == 0 || error == ENOSPC || error == EFBIG || error == EDQUOT
                   ? std::string("Could not write data (not enough disk space available)")
                   : "Could not write data (" + FileErrorReason(error) + ")");
    }
  }
  if (!ok) {
    FWriteFailed = true;
    return false;
  }
  FPosition += size;
  FEnd = std::max(FEnd, FPosition);
  if (FClipboard) FBytesInMemory = FEnd;
  return true;
}

bool TExportFilterTarget::SetStreamPosition(int64_t position) {
  if (position < 0 || position > FEnd) return false;
  if (FClipboard) {
    if (!FMemory) return false;
  } else if (!FWriter || FileSeek(FWriter->Handle(), position, TSeekOrigin::Begin) != position) {
    return false;
  }
  FPosition = position;
  return true;
}

std::string TExportFilterTarget::GetCurrentFileName() const {
  return FWriter ? FFileNames[static_cast<size_t>(FCurrentIndex)] : std::string();
}

void TExportFilterTarget::CleanupCurrentStream() {
  if (FClipboard) {
    FMemory.reset();
    FBytesInMemory = 0;
  } else if (FWriter) {
    FWriter->Abandon();
    FWriter.reset();
    FCurrentIndex = -1;
  }
  FPosition = FEnd = 0;
}

bool TExportFilterTarget::CloseCurrentStream() {
  if (FClipboard || !FWriter) return true;
  std::unique_ptr<TSafeFileWriter> writer = std::move(FWriter);
  const int index = FCurrentIndex;
  FCurrentIndex = -1;
  if (FWriteFailed) {
    writer->Abandon();
    return false;
  }
  if (writer->Commit() < 1) {
    if (!SafeWritesAborted()) AddError("Could not write data: " + writer->ErrorText());
    return false;
  }
  FWritten.push_back({FFileNames[static_cast<size_t>(index)], FEnd, index});
  return true;
}

// ---------------------------------------------------------------------------------------------------------
// TExportFilter

namespace {
constexpr int32_t kCollectionId = 1000;
}

TExportFilter::TExportFilter(std::string name)
    : FName(std::move(name)), FParameters(std::make_unique<TUserParameterAdministrator>()) {}

TExportFilter::~TExportFilter() {
  UnlockDataObjects();
}

void TExportFilter::Initialize(IDataProject* project, const std::string& settingsFolder) {
  FProject = project;
  FParameters->ClearParameters();
  CFICreateParameters(*FParameters);
  FParameters->AllParameterListChanged();
  // The parameter panel's questions and news reach the filter.
  FParameters->OnIsNewParameterOk = [this](const TUserParameterList& changed) {
    return CFIParameterIsNewValueAllowed(changed);
  };
  FParameters->OnParameterChanged = [this](const TUserParameterList& changed, bool internalChange) {
    CFIParameterChanged(changed, internalChange);
  };
  if (settingsFolder.empty()) {
    FSettingsFileName.clear();
  } else {
    std::string folder = settingsFolder;
    if (folder.back() != '/') folder += '/';
    FSettingsFileName = folder + "ExportFilter " + FName + " Settings.oxh";
  }
}

void TExportFilter::CFICreateParameters(TUserParameterAdministrator& administrator) {
  auto* collection = administrator.Add<TUserCollectionParameter>(kCollectionId, kCollectionName, FName,
                                                                 "Parameters of the export filter " + FName);
  TUserParameterAdministrator& nested = collection->GetNestedAdministrator();
  const TParameterTable& table = GetParameterTable();
  int32_t id = table.GetFirstId();
  for (const TParameterDeclaration& declaration : table.GetDeclarations())
    nested.AddParameter(table.CreateParameter(declaration, id++));
  nested.AllParameterListChanged();
}

void TExportFilter::CFIGetStyle(std::vector<std::string>& style) const {
  for (const TParameterDeclaration& declaration : GetParameterTable().GetDeclarations())
    style.push_back(std::string("InsertP ") + kCollectionName + "|" + declaration.Name);
}

const TUserParameterAdministrator* TExportFilter::GetDeclaredValues() const {
  const auto* collection =
      dynamic_cast<const TUserCollectionParameter*>(FParameters->GetUserParameter(kCollectionId));
  return collection ? &collection->GetNestedAdministrator() : nullptr;
}

TUserParameterAdministrator* TExportFilter::GetDeclaredValues() {
  auto* collection = dynamic_cast<TUserCollectionParameter*>(FParameters->GetUserParameter(kCollectionId));
  return collection ? &collection->GetNestedAdministrator() : nullptr;
}

int32_t TExportFilter::GetIntParameter(const std::string& name) const {
  const TUserParameterAdministrator* values = GetDeclaredValues();
  const auto* parameter =
      values ? dynamic_cast<const TUserIntParameter*>(values->GetUserParameterByName(name)) : nullptr;
  if (!parameter)
    throw OrvexException("TExportFilter::GetIntParameter: " + FName + " declares no number \"" + name + "\"");
  return parameter->GetParameter();
}

bool TExportFilter::GetBoolParameter(const std::string& name) const {
  const TUserParameterAdministrator* values = GetDeclaredValues();
  const auto* parameter =
      values ? dynamic_cast<const TUserBoolParameter*>(values->GetUserParameterByName(name)) : nullptr;
  if (!parameter)
    throw OrvexException("TExportFilter::GetBoolParameter: " + FName + " declares no switch \"" + name +
                         "\"");
  return parameter->GetParameter();
}

void TExportFilter::FillFileNamesForObjectList(std::vector<TFileNamesForObject>& names) {
  std::string filter, extension;
  GetFileFilter(filter, extension);
  for (TFileNamesForObject& entry : names) entry.FileName = entry.Caption + extension;
}

bool TExportFilter::LockDataObjects(const TIntList& ids) {
  UnlockDataObjects();
  FIDList = ids;
  bool ok = FProject != nullptr;
  if (!ok) AddError("No project to export from");
  for (int32_t id : ids) {
    TData* data = ok ? FProject->LockData(id) : nullptr;
    if (!data) {
      if (ok) AddError("ID " + std::to_string(id) + ": no such data object");
      ok = false;
      continue;
    }
    FLockedObjects.push_back(data);
  }
  return ok;
}

void TExportFilter::UnlockDataObjects() {
  if (FProject)
    for (TData* data : FLockedObjects) FProject->UnlockData(data);
  FLockedObjects.clear();
}

void TExportFilter::PrepareForExport() {
  std::lock_guard lock(FListLock);
  FErrors.clear();
  FInfos.clear();
}

void TExportFilter::AddError(const std::string& text) {
  std::lock_guard lock(FListLock);
  FErrors.push_back(text);
}

void TExportFilter::AddInfo(const std::string& text) {
  std::lock_guard lock(FListLock);
  FInfos.push_back(text);
}

std::vector<std::string> TExportFilter::GetErrorList() const {
  std::lock_guard lock(FListLock);
  return FErrors;
}

std::vector<std::string> TExportFilter::GetInfoList() const {
  std::lock_guard lock(FListLock);
  return FInfos;
}

std::string TExportFilter::DescribeObject(int32_t id) const {
  const TData* data = FProject ? FProject->FindData(id) : nullptr;
  return "ID " + std::to_string(id) + (data ? " (" + data->GetCaption() + ")" : std::string());
}

TTagError TExportFilter::SaveExportFilterSettingsToTagFile() {
  if (!FSaveSettings || FSettingsFileName.empty()) return teNoError;
  const TTagError result = WriteFileSafely(FSettingsFileName, [this](TFileHandle file) {
    TTagControl top, group, t;
    TTagError r = SaveIdentificationToFile(file, kSettingsIdentification);
    if (r >= 1) r = top.WriteTag(file, kSettingsTag, TTagKind::TagList);
    if (r >= 1) r = group.WriteTag(file, kSettingsUserParameterTag, TTagKind::TagList);
    if (r >= 1) r = FParameters->SaveParameterValuesToFile(file);
    if (r >= 1) r = group.CloseWriteTag(file);
    if (r >= 1) r = t.WriteTag(file, kSettingsCustomTag, TTagKind::TagList);
    if (r >= 1) r = SaveToTagFile(file);
    if (r >= 1) r = t.CloseWriteTag(file);
    if (r >= 1) r = top.CloseWriteTag(file);
    return r;
  });
  return result >= 1 ? teNoError : teCreateFileForWriteError;
}

TTagError TExportFilter::LoadExportFilterSettingsFromTagFile() {
  if (FSettingsFileName.empty()) return teCreateFileForReadError;
  TFileHandle file = kInvalidFileHandle;
  TTagControl root;
  TTagError result = OpenTagFileForReading(FSettingsFileName, {kSettingsIdentification}, file, root);
  if (result < 1) return result;
  if (root.Name() != kSettingsTag) {
    CloseFile(file);
    return teTagNotFound;
  }
  TTagControl group, custom;
  result = group.FindTag(file, kSettingsUserParameterTag, root);
  if (result >= 1) result = FParameters->LoadParameterValuesFromFile(file, &group);
  if (result >= 1) {
    result = custom.FindTag(file, kSettingsCustomTag, root);
    if (result >= 1) result = LoadFromTagFile(file, &custom);
  }
  CloseFile(file);
  if (result >= 1) FSettingsLoaded = true;
  return result;
}
