// Which codec a slot of a codec table holds. The codecs are not exported: they are told by the names under which they
// log, allocate and release, and by what they write and read, compared with codecs of the tests' own.
#pragma once

#include "tarn_sysdiag/platform/rpc.h"
#include "tests/codec/record.h"

// Slot 0.
void ExpectDecoderOf(const Type &type, VeltoUnpackFn unpack);
// Slot 1.
void ExpectEncoderOf(const Type &type, VeltoPackFn pack);
// Slot 2; records to release come from the test's own decoder, which takes its memory from the same platform.
void ExpectReleaseOf(const Type &type, VeltoFreeFn release);
// Slots 4 and 5: null for a type without fixed form.
void ExpectFixedFormOf(const Type &type, VeltoFixedPackFn pack, VeltoFixedSizeFn size);
