// The status-code descriptions (the logging switch: SongTest's failure paths).

#include <gtest/gtest.h>

#include <string>

#include "audio/audio.h"

namespace pelora::gamedev::core {
namespace {

TEST(StatusDescription, KnownCodesHaveFixedTexts) {
    EXPECT_STREQ(get_osstatus_description(0), "No error");
    EXPECT_STREQ(get_osstatus_description(-50), "Parameter error");
    // Two codes share one text.
    EXPECT_STREQ(get_osstatus_description(-66681), "Cannot start queue or queue not running");
    EXPECT_STREQ(get_osstatus_description(-66665), get_osstatus_description(-66681));
}

TEST(StatusDescription, PrintableFourCharacterCodes) {
    EXPECT_STREQ(get_osstatus_description(0x696E666F), "Error code: 'info' (0x696E666F)");
    // A space is printable; so is '~' (126).
    EXPECT_STREQ(get_osstatus_description(0x61616320), "Error code: 'aac ' (0x61616320)");
    EXPECT_STREQ(get_osstatus_description(0x7E212020), "Error code: '~!  ' (0x7E212020)");
}

TEST(StatusDescription, EverythingElseIsUnknown) {
    EXPECT_STREQ(get_osstatus_description(-1), "Unknown error: -1 (0xFFFFFFFF)");
    EXPECT_STREQ(get_osstatus_description(0x7F616263), "Unknown error: 2137088611 (0x7F616263)");
    EXPECT_STREQ(get_osstatus_description(0x61806263), "Unknown error: 1635803747 (0x61806263)");
    EXPECT_STREQ(get_osstatus_description(0x61621F63), "Unknown error: 1633820515 (0x61621F63)");
    EXPECT_STREQ(get_osstatus_description(INT32_MIN), "Unknown error: -2147483648 (0x80000000)");
}

TEST(StatusDescription, EachKindReusesItsOwnBuffer) {
    const char* code = get_osstatus_description(0x696E666F);
    const char* unknown = get_osstatus_description(-1);
    EXPECT_STREQ(code, "Error code: 'info' (0x696E666F)") << "the unknown text has a buffer of its own";
    get_osstatus_description(0x74797021);
    EXPECT_STREQ(code, "Error code: 'typ!' (0x74797021)") << "overwritten by the next four-character code";
    EXPECT_STREQ(unknown, "Unknown error: -1 (0xFFFFFFFF)");
}

} // namespace
} // namespace pelora::gamedev::core
