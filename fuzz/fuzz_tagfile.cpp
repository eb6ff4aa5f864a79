// Fuzz target: every reader of tag files on arbitrary bytes (whole-tree load, tag walks, lists,
// the stream path and the structural check) must end cleanly.
#include "common/Saveandload.h"
#include "common/Tagcontrol.h"
#include "common/Tagstream.h"
#include "common/Tagvalidate.h"

#include <cstdint>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

// Walks every list found by FindTag-like scanning and reads values as the loaders do.
void Walk(TFileHandle file, const TTagControl& parent, int depth) {
  if (depth > 20) return;
  for (const char* name : {"Root", "Data", "Count", "Strings", "Name", ""}) {
    TTagControl tag;
    int32_t ints[4] = {};
    tag.LoadIntTag(file, name, parent, ints, 4);
    double d = 0;
    tag.LoadDoubleOrFloatTag(file, name, parent, &d, 1);
    std::string s;
    tag.LoadAnsiStringTag(file, name, parent, s);
    std::vector<std::string> strings;
    tag.LoadStringList(file, name, parent, strings);
    TIntList list;
    tag.LoadList(file, name, parent, list);
  }
  // Follow the children by position, as a tree walk does.
  int64_t pos = parent.Begin();
  int steps = 0;
  while (pos >= parent.Begin() && pos < parent.End() && steps++ < 64) {
    TTagControl child;
    std::string name;
    FileSeek(file, pos, TSeekOrigin::Begin);
    if (child.ReadTag(file, name) < 1 || child.Begin() <= pos || child.End() < child.Begin()) break;
    if (child.Kind() == TTagKind::TagList) Walk(file, child, depth + 1);
    pos = child.End();
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = memfd_create("fuzz_tagfile", 0);
  if (fd < 0) return 0;
  if (write(fd, data, size) != static_cast<ssize_t>(size)) {
    close(fd);
    return 0;
  }
  const std::string path = "/proc/self/fd/" + std::to_string(fd);

  TTagControl tree;
  tree.LoadTagListByFileName(path, "ORX_TEST");
  std::string id;
  FileSeek(fd, 0, TSeekOrigin::Begin);
  LoadIdentificationFromFile(fd, id);
  if (!id.empty()) {
    TTagControl whole;
    whole.LoadTagListByFileName(path, id);
  }

  TTagControl root;
  TFileHandle file = kInvalidFileHandle;
  if (OpenTagFileForReading(path, {id}, file, root) == 1) {
    Walk(file, root, 0);
    CloseFile(file);
  }

  TMemoryByteStream stream(std::vector<uint8_t>(data, data + size));
  std::string streamId, rootName;
  TTagControl streamRoot, tag;
  if (LoadIdentificationFromStream(&stream, streamId) == kStreamOk &&
      ReadTagFromStream(&stream, streamRoot, rootName) == kStreamOk) {
    int32_t v = 0;
    uint8_t b[4] = {};
    LoadOrDefaultIntTagFromStream(&stream, tag, "Count", streamRoot, &v, 1, 0);
    LoadByteTagFromStream(&stream, tag, "Data", streamRoot, b, 4);
  }

  ValidateTagFile(path);
  close(fd);
  return 0;
}
