// Store keys: any bytes either parse into a record of their table or are refused, and a
// key that parses is the very key of the record it gives (one spelling per record).
#include <cstdint>
#include <cstdlib>
#include <string>

#include "kx_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view key(reinterpret_cast<const char *>(data), size);
    const ProtobufCMessageDescriptor *table = kx::table_of_key(key);
    if (!table)
        return 0;
    std::string error;
    kx::Message record(kx::parse_key(table, key, &error));
    if (record ? kx::record_key(record.get()) != key : error.empty())
        abort();
    return 0;
}
