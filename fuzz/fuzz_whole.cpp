// Whole values (p_libpub.cap_state, a packed record): any bytes decode or are refused; a
// value that decodes packs into a value that decodes to the same record.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kx_codec.h"
#include "p_libpub.pb-c.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const ProtobufCMessageDescriptor *table = &p_libpub__cap_state__descriptor;
    std::string error;
    kx::Message record;
    if (kx::decode_whole(table, "p_libpub.cap_state", {reinterpret_cast<const char *>(data), size},
                         &record, &error) != 0)
        return 0;
    std::string packed = kx::encode_whole(record.get());
    kx::Message again;
    if (kx::decode_whole(table, "p_libpub.cap_state", packed, &again, &error) != 0 ||
        kx::encode_whole(again.get()) != packed)
        abort();
    return 0;
}
