// Saving and loading a project with a 1 GiB graph beside raw sequential write and read of the same bytes,
// on the heap strategy and on the memory-mapped strategy. Prints MB/s; asserts nothing.
#include "Benchsupport.h"
#include "common/Saveandload.h"
#include "common/memory/Memorymanagement.h"
#include "data/Dgraph.h"
#include "data/Registerdata.h"
#include "project/Project.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace oxbench;

int main(int argc, char** argv) {
  const std::string strategy = argc > 1 ? argv[1] : "heap";
  const std::string dir = BenchDir();
  TMemoryOptionsOverride options;
  options.Strategy = strategy;
  options.MemoryMappedFilePath = dir + "/";
  options.MapSizeMB = 256;
  options.FileSizeGB = 8;
  TMemoryManagement::ApplyOptionsOverride(options);
  TMemoryManagement::CreateMemoryStrategy();
  RegisterDataClasses();

  constexpr int32_t sx = 512, sy = 512, sg = 1024; // 1 GiB of floats
  const double mb = double(sx) * sy * sg * 4 / 1e6;
  std::vector<float> raw(static_cast<size_t>(sx) * sy * sg);
  for (size_t i = 0; i < raw.size(); ++i) raw[i] = float(i % 4093);

  const std::string rawName = dir + "/orvex_bench_graph.raw";
  const std::string projectName = dir + "/orvex_bench_graph.oxp";
  std::printf("project with a %.0f MB graph, %s strategy (files in %s)\n", mb, strategy.c_str(), dir.c_str());

  TProject project;
  auto graph = std::make_unique<TDGraph>();
  graph->SetID(project.GetNewDataID());
  graph->SetFieldSize(sx, sy, TDataFieldKind::Float, sg);
  for (int32_t x = 0; x < sx; ++x)
    for (int32_t y = 0; y < sy; ++y) graph->SetSpectrum(x, y, raw.data() + (int64_t(x) * sy + y) * sg);
  graph->SetAllLinesValid(true);
  project.AddData(std::move(graph));

  for (int round = 1; round <= 2; ++round) {
    auto start = Clock::now();
    TFileHandle file = CreateFileForWriting(rawName);
    WriteAllBytes(file, raw.data(), static_cast<int64_t>(raw.size()) * 4);
    ::fdatasync(file);
    CloseFile(file);
    const double rawWrite = Seconds(start);
    SyncAndDrop(rawName);
    start = Clock::now();
    file = OpenFileForReading(rawName);
    ReadAllBytes(file, raw.data(), static_cast<int64_t>(raw.size()) * 4);
    CloseFile(file);
    const double rawRead = Seconds(start);
    // The same read into memory that is new to the process, as a load into a new field has to.
    SyncAndDrop(rawName);
    start = Clock::now();
    {
      std::vector<float> fresh(raw.size());
      file = OpenFileForReading(rawName);
      ReadAllBytes(file, fresh.data(), static_cast<int64_t>(fresh.size()) * 4);
      CloseFile(file);
    }
    const double rawFreshRead = Seconds(start);

    // The save flushes the new file and its folder itself before it renames, as every save does.
    start = Clock::now();
    project.SaveProjectToFile(projectName);
    const double save = Seconds(start);
    start = Clock::now();
    TProject loaded;
    loaded.LoadProjectFromFile(projectName);
    const double load = Seconds(start);
    std::printf("round %d: write raw + flush %7.1f MB/s  save %7.1f MB/s (%.2fx the time) | read raw %7.1f "
                "MB/s (into "
                "new memory %7.1f MB/s)  load %7.1f MB/s (%5.1f%% / %5.1f%%)\n",
                round, mb / rawWrite, mb / save, save / rawWrite, mb / rawRead, mb / rawFreshRead, mb / load,
                100 * rawRead / load, 100 * rawFreshRead / load);
    SyncAndDrop(projectName);
  }
  DeleteFileByName(rawName);
  DeleteFileByName(projectName);
  return 0;
}
