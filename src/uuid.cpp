#include "usemeter/sys/host_facts.hpp"

#include <fstream>
#include <iomanip>
#include <sstream>

#include "host_facts_detail.hpp"

namespace usemeter_1_5_7 {

namespace {

const std::size_t uuid_byte_count = 16;
const int uuid_groups[5] = {4, 2, 2, 2, 6};

}  // namespace

std::string generate_uuid4_from(const char* random_source)
{
    // Used exactly as read, without version or variant bits: an identifier is 128 raw
    // random bits in the grouped form.
    unsigned char bytes[uuid_byte_count] = {};
    std::ifstream source(random_source, std::ios::in | std::ios::binary);
    if (!source)
        return std::string();
    source.read(reinterpret_cast<char*>(bytes), sizeof bytes);
    if (source.fail() || source.bad())
        return std::string();
    return uuid_bytes_to_str(bytes);
}

std::string generate_uuid4()
{
    return generate_uuid4_from("/dev/urandom");
}

std::string uuid_bytes_to_str(void* bytes)
{
    const unsigned char* byte = static_cast<const unsigned char*>(bytes);
    const unsigned char* const end = byte + uuid_byte_count;
    std::ostringstream text;
    text << std::hex << std::uppercase << std::setfill('0');
    for (int group : uuid_groups) {
        for (int i = 0; i < group; ++i, ++byte)
            text << std::setw(2) << static_cast<unsigned>(*byte);
        if (byte != end)
            text << '-';
    }
    return text.str();
}

}  // namespace usemeter_1_5_7
