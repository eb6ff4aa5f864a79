// Throughput of tag files: a 1 GiB float array written and read as one tag, beside raw sequential
// write and read of the same bytes in the same run. Prints MB/s; asserts nothing.
#include "Benchsupport.h"
#include "common/Saveandload.h"
#include "common/Tagcontrol.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

using namespace oxbench;

int main(int argc, char** argv) {
  const int64_t megabytes = argc > 1 ? std::atoll(argv[1]) : 1024;
  const std::string dir = BenchDir();
  const int64_t count = megabytes * 1024 * 1024 / 4;
  const double mb = static_cast<double>(count) * 4 / 1e6;
  std::vector<float> values(static_cast<size_t>(count));
  for (int64_t i = 0; i < count; ++i) values[i] = static_cast<float>(i & 0xffff);
  std::vector<float> back(static_cast<size_t>(count));

  const std::string rawName = dir + "/orvex_bench_raw.bin";
  const std::string tagName = dir + "/orvex_bench_tag.oxt";

  std::printf("tag file throughput, %.0f MB float array (files in %s)\n", mb, dir.c_str());
  for (int round = 0; round < 2; ++round) {
    // Raw sequential write and read of the same bytes.
    auto start = Clock::now();
    TFileHandle raw = CreateFileForWriting(rawName);
    WriteAllBytes(raw, values.data(), count * 4);
    ::fdatasync(raw);
    CloseFile(raw);
    const double rawWrite = Seconds(start);
    SyncAndDrop(rawName);
    start = Clock::now();
    raw = OpenFileForReading(rawName);
    ReadAllBytes(raw, back.data(), count * 4);
    CloseFile(raw);
    const double rawRead = Seconds(start);

    // The same through a tag file: identification, root list, one Float tag.
    start = Clock::now();
    TFileHandle file = CreateTagFile(tagName, "ORX_BNCH");
    TTagControl root, tag;
    root.WriteTag(file, "Root", TTagKind::TagList);
    tag.SaveFloatTag(file, "Values", values.data(), count);
    root.CloseWriteTag(file);
    ::fdatasync(file);
    CloseFile(file);
    const double tagWrite = Seconds(start);
    SyncAndDrop(tagName);
    start = Clock::now();
    TFileHandle in = kInvalidFileHandle;
    TTagControl readRoot;
    OpenTagFileForReading(tagName, {"ORX_BNCH"}, in, readRoot);
    tag.LoadFloatTag(in, "Values", readRoot, back.data(), count);
    CloseFile(in);
    const double tagRead = Seconds(start);
    if (back[count - 1] != values[count - 1]) std::printf("read-back mismatch!\n");

    std::printf(
        "round %d: write raw %8.1f MB/s  tag %8.1f MB/s (%5.1f%%) | read raw %8.1f MB/s  tag %8.1f MB/s "
        "(%5.1f%%)\n",
        round + 1, mb / rawWrite, mb / tagWrite, 100.0 * rawWrite / tagWrite, mb / rawRead, mb / tagRead,
        100.0 * rawRead / tagRead);
  }
  DeleteFileByName(rawName);
  DeleteFileByName(tagName);
  return 0;
}
