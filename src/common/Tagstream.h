// The read-only path over a byte stream: the same bytes as a tag file, seen through Read and Seek only.
// Results follow the stream convention: 0 is success, a tag that isn't found gives kStreamFail.
#pragma once

#include "common/Saveandload.h"
#include "common/Tagcontrol.h"

#include <string>

TStreamResult LoadIdentificationFromStream(IReadStream* stream, std::string& identification);
TStreamResult LoadAnsiStringFromStream(IReadStream* stream, std::string& text);
TStreamResult LoadIntFromStream(IReadStream* stream, int32_t* values, int64_t count);
TStreamResult LoadByteFromStream(IReadStream* stream, uint8_t* values, int64_t count);
TStreamResult LoadLargeIntegerFromStream(IReadStream* stream, int64_t& value);
TStreamResult LoadTagKindFromStream(IReadStream* stream, TTagKind& kind);
/// Reads the header at the stream's position into tag and name; the stream is then at Begin.
TStreamResult ReadTagFromStream(IReadStream* stream, TTagControl& tag, std::string& name);
/// Linear search over the direct children of parent, as the file path does it.
TStreamResult FindTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                const TTagControl& parent);
TStreamResult LoadByteTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                    const TTagControl& parent, uint8_t* values, int64_t count);
/// Unlike its file sibling: a missing tag fills the defaults and still returns the search's failure.
TStreamResult LoadOrDefaultIntTagFromStream(IReadStream* stream, TTagControl& tag, const std::string& name,
                                            const TTagControl& parent, int32_t* values, int64_t count,
                                            int32_t defaultValue);
