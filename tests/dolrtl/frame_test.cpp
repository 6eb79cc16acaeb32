#include "devlink/link_frame.h"
#include "devlink/link_protocol.h"

#include <gtest/gtest.h>

namespace {

std::vector<LinkFrame> Decode(LinkBytes const &bytes, std::size_t cbPiece)
{
    CLinkDecoder decoder;
    std::vector<LinkFrame> frames;
    for (std::size_t n = 0; n < bytes.size(); n += cbPiece) {
        decoder.Feed(bytes.data() + n, std::min(cbPiece, bytes.size() - n));
        for (LinkFrame frame; decoder.Next(&frame);) {
            frames.push_back(frame);
        }
    }
    EXPECT_FALSE(decoder.IsGarbage());
    return frames;
}

} // namespace

TEST(LinkDecoder, EndsWithALengthThatNoFrameHas)
{
    for (DWORD const cbBody : {DWORD{0}, DWORD{4}, kLinkMaxBody + 1, ~DWORD{0}}) {
        LinkBytes const frame = EncodeLinkFrame({eLK_PING, 7, {}});
        CLinkDecoder decoder;
        decoder.Feed(frame.data(), frame.size());
        LinkBytes const length = CLinkWriter().Word32(cbBody).Take();
        decoder.Feed(length.data(), length.size());
        decoder.Feed(frame.data(), frame.size());
        LinkFrame next;
        EXPECT_TRUE(decoder.Next(&next));
        EXPECT_FALSE(decoder.IsGarbage());
        EXPECT_FALSE(decoder.Next(&next));
        EXPECT_TRUE(decoder.IsGarbage()) << cbBody;
        decoder.Feed(frame.data(), frame.size());
        EXPECT_FALSE(decoder.Next(&next));
    }
}

TEST(LinkDecoder, FindsFramesInPiecesOfAnySize)
{
    LinkBytes stream;
    for (std::size_t cb :
         {std::size_t{0}, std::size_t{300}, std::size_t{kLinkMaxBody - 5}, std::size_t{7}}) {
        LinkBytes const frame = EncodeLinkFrame(
            {eLK_SET, static_cast<DWORD>(cb), LinkBytes(cb, static_cast<BYTE>(cb))});
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    for (std::size_t cbPiece : {std::size_t{1}, std::size_t{3}, std::size_t{4096}, stream.size()}) {
        auto const frames = Decode(stream, cbPiece);
        ASSERT_EQ(frames.size(), 4u) << cbPiece;
        for (LinkFrame const &frame : frames) {
            EXPECT_EQ(frame.kind, eLK_SET);
            EXPECT_EQ(frame.payload, LinkBytes(frame.dwNumber, static_cast<BYTE>(frame.dwNumber)));
        }
    }
}
