#include "protocol/message.h"

#include "support/wire.h"

#include <array>

namespace {

using bytes_t = std::vector<uint8_t>;

const ip_addr_t V4 = {{0xFF, 0xFF, 0xFF, 0xFF, 1, 0, 0, 10}};
const ip_addr_t V6 = {{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xB8, 0x0D, 1, 0x20}};
const std::string V4_HEX = "ff ff ff ff 01 00 00 0a 00 00 00 00 00 00 00 00 ";
const std::string V6_HEX = "01 00 00 00 00 00 00 00 00 00 00 00 b8 0d 01 20 ";

// A message has these bytes, both ways; cut at any byte, or with too little room, it is refused. Sizes are
// taken to the byte on the heap, so that the address sanitizer sees a step too far as well.
template <typename T>
void check(const std::string &digits, uint32_t size, const T &value)
{
    SCOPED_TRACE(digits);
    const std::string text = hex(digits);
    const bytes_t expected(text.begin(), text.end());
    ASSERT_EQ(expected.size(), size);
    bytes_t wire(size), copy(size);
    msg_writer_t out = msg_writer(wire.data(), size);
    EXPECT_TRUE(msg_encode(&out, value) && out.used == size);
    EXPECT_EQ(wire, expected);

    T decoded;
    msg_reader_t in = msg_reader(wire.data(), size);
    EXPECT_TRUE(msg_decode(&in, &decoded) && in.used == size);
    out = msg_writer(copy.data(), size);
    EXPECT_TRUE(msg_encode(&out, decoded));
    EXPECT_EQ(copy, expected);

    for (uint32_t cut = 0; cut < size; cut++) {
        const bytes_t beginning(wire.begin(), wire.begin() + cut);
        bytes_t room(cut);
        in = msg_reader(beginning.data(), cut);
        EXPECT_TRUE(!msg_decode(&in, &decoded) && in.failed && in.used <= cut) << cut;
        out = msg_writer(room.data(), cut);
        EXPECT_TRUE(!msg_encode(&out, value) && out.failed && out.used <= cut) << cut;
    }
}

TEST(Protocol, EveryMessageHasItsBytesBothWaysAndIsRefusedCut)
{
    check("00 09 02 03", MSG_HEADER_SIZE, msg_request(msg_action::LIST, msg_target::ALL));
    check("00 09 06 00", MSG_HEADER_SIZE, msg_answer(msg_code::UPDATE));
    check<msg_add_t>(V6_HEX + "e8 03 00 00 3c 00 00 00 03", MSG_ADD_SIZE, {V6, 1000, 60, 3});
    check<msg_ip_list_item_t>(V4_HEX + "02", MSG_IP_LIST_ITEM_SIZE, {V4, BOTH});
    check<msg_ip_detail_t>(V4_HEX + "01 64 04 03 02 01 08 07 06 05 0c 0b 0a 09 10 0f 0e 0d ff",
                           MSG_IP_DETAIL_SIZE,
                           {V4, DST, 100, 0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E0F10, 255});
    check<msg_hb_info_t>("01 00 00 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 "
                         "07 00 00 80 08 07 06 05 04 03 02 01 ff ff ff ff ff ff ff 7f",
                         MSG_HB_INFO_SIZE,
                         {1, 2, 3, 4, 5, 6, 0x80000007, 0x0102030405060708, 0x7FFFFFFFFFFFFFFF});
    check<msg_update_incident_t>("02 04 03 02 01 " + V6_HEX, MSG_UPDATE_INCIDENT_SIZE, {0x01020304, V6});
    check<msg_update_capture_t>("03 05 00 00 00 28", MSG_UPDATE_CAPTURE_SIZE, {5, 40});
    check<msg_update_visual_t>("04 07 00 00 00 01 02 00 00 ff ff ff ff 34 12 fe ff", MSG_UPDATE_VISUAL_SIZE,
                               {7, 513, 0xFFFFFFFF, 0x1234, 0xFFFE});
}

TEST(Protocol, AFailedCursorStaysFailedAndHugeSizesDoNotWrapAround)
{
    std::array<uint8_t, 5> bytes = {};
    msg_reader_t in = msg_reader(bytes.data(), bytes.size());
    ip_addr_t addr = V4;
    uint32_t value = 7;
    EXPECT_FALSE(msg_get_addr(&in, &addr) || msg_get_u32(&in, &value));
    in = msg_reader(bytes.data(), bytes.size());
    EXPECT_TRUE(msg_get_u32(&in, &value) && !msg_get_bytes(&in, bytes.data(), 0xFFFFFFFF));

    msg_writer_t out = msg_writer(bytes.data(), bytes.size());
    EXPECT_FALSE(msg_put_bytes(&out, V4.bytes, sizeof V4.bytes) || msg_put_u32(&out, 9));
    out = msg_writer(bytes.data(), bytes.size());
    EXPECT_TRUE(msg_put_u32(&out, 1) && !msg_put_bytes(&out, bytes.data(), 0xFFFFFFFD));
}

} // namespace
