// BER stream I/O over socket pairs: the resumable reader, refused headers, the read-ahead and
// the growing buffer, the writers' pieces and retries, the copy descriptor, the secure branches
// with a faked toolkit table, and the masking of credentials in the dumps.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <tuple>
#include <unistd.h>

#include "liblber/ber_int.h"
#include "liblber/ber_memory.h"
#include "liblber/lber.h"
#include "support/fber_bytes.h"
#include "support/lber_test.h"
#include "trace/ldap_trace.h"

namespace {

using wzrtest::Bytes;
using wzrtest::TraceFile;

// A connected pair: `sb` uses end 0 (non-blocking unless asked), the test plays end 1.
struct SocketPair {
    int fd[2] = {-1, -1};
    Sockbuf sb = {-1, nullptr, 0, 0, -1};

    explicit SocketPair(int type = SOCK_STREAM, bool blocking = false)
    {
        EXPECT_EQ(socketpair(AF_UNIX, type, 0, fd), 0);
        sb.sb_sd = fd[0];
        if (!blocking)
            nonblocking(0);
    }
    ~SocketPair() { sockbuf_release_buffer(&sb); close(fd[0]); if (fd[1] >= 0) close(fd[1]); }
    void nonblocking(int which) { fcntl(fd[which], F_SETFL, fcntl(fd[which], F_GETFL) | O_NONBLOCK); }
    void peer_write(const Bytes &b) { ASSERT_EQ(write(fd[1], b.data(), b.size()), (ssize_t)b.size()); }
    void peer_write(unsigned char c) { peer_write(Bytes{c}); }
    void close_peer() { close(fd[1]), fd[1] = -1; }
};

// An element that owns nothing: the writers only look at ber_buf, ber_ptr and ber_rwptr.
BerElement element_over(Bytes &data)
{
    BerElement e{};
    e.ber_buf = data.data();
    e.ber_ptr = e.ber_end = data.data() + data.size();
    e.ber_tag = LBER_DEFAULT;
    return e;
}

// A small PDU with message id 5.
const Bytes SMALL_PDU = {0x30, 0x0c, 0x02, 0x01, 0x05, 0x64, 0x07, 0x04, 0x05, 'h', 'e', 'l', 'l', 'o'};
const Bytes SMALL_CONTENTS(SMALL_PDU.begin() + 2, SMALL_PDU.end());

Bytes contents_of(const BerElement *ber) { return Bytes(ber->ber_ptr, ber->ber_end); }

using FberPtr = wzrtest::Fber;
FberPtr new_fber(int size = 0) { return FberPtr(fber_alloc_t(size)); }

// Reads one PDU from `sb` into a fresh element: the tag (or -1, 11) and the element.
long read_one(Sockbuf *sb, FberPtr &ber, uint32_t *progress = nullptr)
{
    uint32_t local = 0;
    ber = new_fber();
    return fber_get_next_nb(sb, ber.get(), progress != nullptr ? progress : &local);
}

// The bytes of every hex dump in `text`, read back from the dumps' hex columns.
std::vector<Bytes> dumps_in(const std::string &text)
{
    std::vector<Bytes> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        size_t tab = line.find('\t');
        std::string row = tab == std::string::npos ? "" : line.substr(tab + 1);
        if (row.size() < 59 || row[0] != '|' || row[5] != '|' ||
            row.substr(1, 4).find_first_not_of("0123456789ABCDEF") != std::string::npos)
            continue;
        if (row.substr(1, 4) == "0000")
            out.emplace_back();
        for (size_t col = 6; col + 1 < 41; ++col)
            if (row[col] != ' ')
                out.back().push_back(
                    static_cast<unsigned char>(std::stoi(row.substr(col++, 2), nullptr, 16)));
    }
    return out;
}

std::vector<Bytes> dumps(const TraceFile &trace) { return dumps_in(trace.text()); }

// SEQUENCE with a four-byte long-form length around `content` bytes of `fill`.
Bytes long_form_pdu(size_t content, unsigned char fill)
{
    Bytes pdu = {0x30, 0x84};
    for (int shift = 24; shift >= 0; shift -= 8)
        pdu.push_back(static_cast<unsigned char>(content >> shift));
    pdu.resize(pdu.size() + content, fill);
    return pdu;
}

long kernel_queued(int fd)
{
    int n = -1;
    return ioctl(fd, FIONREAD, &n) == 0 ? n : -1;
}

// The reader resumes wherever the bytes stop: after a lone tag (the next byte is a length, not
// a tag), inside a long-form length (its bytes accumulate) and inside the contents, where the
// progress is the number of contents bytes still missing. Progress 2 means "header read, no
// buffer" and also "two contents bytes missing": the second must not be taken for the first.
TEST(StreamReader, PduArrivingInPiecesResumesInTheHeaderAndTheContents)
{
    SocketPair sp;
    auto ber = new_fber();
    uint32_t progress = 0;
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), BER_WOULD_BLOCK); // nothing yet
    for (size_t i = 0; i + 1 < SMALL_PDU.size(); ++i) {
        sp.peer_write(SMALL_PDU[i]);
        ASSERT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), BER_WOULD_BLOCK) << "byte " << i;
        EXPECT_EQ(progress, i == 0 ? 0 : SMALL_PDU.size() - 1 - i);
    }
    EXPECT_EQ(ber->ber_tag, 0x30u);
    sp.peer_write(SMALL_PDU.back());
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x30);
    EXPECT_EQ(progress, 0u);
    EXPECT_EQ(contents_of(ber.get()), SMALL_CONTENTS);
    EXPECT_EQ(*ber->ber_end, 0) << "contents are NUL-terminated";
    // A lone tag, then length and contents together.
    sp.peer_write(SMALL_PDU[0]);
    ASSERT_EQ(read_one(&sp.sb, ber, &progress), BER_WOULD_BLOCK);
    sp.peer_write(Bytes(SMALL_PDU.begin() + 1, SMALL_PDU.end()));
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x30);
    EXPECT_EQ(contents_of(ber.get()), SMALL_CONTENTS);

    Bytes pdu = long_form_pdu(256, 'v');
    ber = new_fber();
    for (size_t at : {0, 2, 3, 4}) {
        sp.peer_write(Bytes(pdu.begin() + at, pdu.begin() + (at == 0 ? 2 : at + 1)));
        ASSERT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), BER_WOULD_BLOCK);
        EXPECT_EQ(progress, 2u);
    }
    sp.peer_write(Bytes(pdu.begin() + 5, pdu.end()));
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x30);
    EXPECT_EQ(contents_of(ber.get()), Bytes(256, 'v'));
    for (Bytes p : {Bytes{0x04, 2}, Bytes{0x04, 0x81, 200}}) {
        size_t header = p.size();
        p.resize(header + p.back(), 0x5a);
        sp.peer_write(Bytes(p.begin(), p.end() - 2));
        ASSERT_EQ(read_one(&sp.sb, ber, &progress), BER_WOULD_BLOCK);
        ASSERT_EQ(progress, 2u);
        sp.peer_write(Bytes(p.end() - 2, p.end()));
        ASSERT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x04) << "length " << p.size();
        EXPECT_EQ(contents_of(ber.get()), Bytes(p.begin() + header, p.end()));
    }
}

// Malformed headers, a stream cut short anywhere (even with ~2 GiB declared) and a closing
// Sockbuf all fail the read: no byte that did not come is ever handed up.
TEST(StreamReader, MalformedHeadersAndStreamsEndingInsideAPduAreRefused)
{
    const struct { const char *what; Bytes bytes; bool end; } cases[] = {
        {"long form of 9 bytes", {0x30, 0x89, 1, 2, 3, 4, 5, 6, 7, 8, 9}, false},
        {"length 0x7FFFFFFF", {0x30, 0x84, 0x7f, 0xff, 0xff, 0xff}, false},
        {"length 0x80000000", {0x30, 0x84, 0x80, 0x00, 0x00, 0x00}, false},
        {"length above 32 bits", {0x30, 0x85, 0x01, 0x00, 0x00, 0x00, 0x00}, false},
        {"indefinite length", {0x30, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00}, false},
        {"multi-byte tag", {0x1f, 0x81, 0x02, 0x00, 0x00}, false},
        {"empty PDU", {0x30, 0x00}, false},
        {"end after the tag", {0x30}, true},
        {"end inside the length", {0x30, 0x84, 0x7f}, true},
        {"end inside the contents", {0x04, 0x05, 'a', 'b'}, true},
        {"end inside a huge PDU", {0x30, 0x84, 0x7f, 0xff, 0xff, 0xfe, 'a', 'a', 'a'}, true},
    };
    for (const auto &c : cases) {
        SocketPair sp;
        sp.peer_write(c.bytes);
        if (c.end)
            sp.close_peer();
        FberPtr ber;
        EXPECT_EQ(read_one(&sp.sb, ber), -1) << c.what;
    }
    SocketPair sp;
    sp.peer_write(SMALL_PDU);
    sp.close_peer();
    FberPtr ber;
    uint32_t progress = 0;
    EXPECT_EQ(fber_get_next_nb(&sp.sb, wzrtest::Plain(ber_alloc_t(0)).get(), &progress), -1) << "FBER only";
    EXPECT_EQ(fber_get_next_nb(nullptr, new_fber().get(), &progress), -1);
    EXPECT_EQ(fber_get_next_nb(&sp.sb, nullptr, &progress), -1);
    EXPECT_EQ(fber_get_next_nb(&sp.sb, new_fber().get(), nullptr), -1);
    sp.sb.sb_closing = 1;
    EXPECT_EQ(read_one(&sp.sb, ber), -1) << "a closing Sockbuf reads nothing";
    sp.sb.sb_closing = 0;
    EXPECT_EQ(read_one(&sp.sb, ber), 0x30);
    EXPECT_EQ(read_one(&sp.sb, ber), -1) << "the end of the stream fails the next header";
}

TEST(StreamReader, SmallPduFillsTheInlineBufferWithoutAllocating)
{
    SocketPair sp;
    auto ber = new_fber(64);
    uint32_t progress = 0;
    sp.peer_write(SMALL_PDU);
    sp.peer_write(SMALL_PDU);
    auto warm = new_fber(64); // the connection's read-ahead is made by its first read
    ASSERT_EQ(fber_get_next_nb(&sp.sb, warm.get(), &progress), 0x30);
    long calls = lber_alloc_calls();
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x30);
    EXPECT_EQ(lber_alloc_calls(), calls);
    EXPECT_EQ(contents_of(ber.get()), SMALL_CONTENTS);
    // One byte more than the inline buffer holds goes to the heap.
    Bytes pdu = {0x04, 64};
    pdu.resize(2 + 64, 'z');
    sp.peer_write(pdu);
    ber = new_fber(64);
    calls = lber_alloc_calls();
    EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x04);
    EXPECT_EQ(lber_alloc_calls(), calls + 1);
    EXPECT_EQ(contents_of(ber.get()), Bytes(pdu.begin() + 2, pdu.end()));
    // Elements embedded in their owner's block: the one with room takes its PDU inline, the
    // one without allocates; neither can be encoded into, and each frees only its buffer.
    alignas(BerElement) unsigned char roomy[sizeof(BerElement) + 64], bare[sizeof(BerElement)];
    ASSERT_EQ(fber_embedded_bytes(64), sizeof roomy);
    sp.peer_write(SMALL_PDU);
    sp.peer_write(pdu);
    long live = lber_live_blocks();
    for (auto [block, room, extra] : {std::tuple{roomy, 64, 0}, std::tuple{bare, 0, 1}}) {
        BerElement *e = fber_embed(block, room);
        EXPECT_GT(fber_get_next_nb(&sp.sb, e, &progress), 0);
        EXPECT_EQ(lber_live_blocks(), live + extra);
        EXPECT_EQ(fber_printf(e, "{i}", 1), -1);
        fber_free(e);
        EXPECT_EQ(lber_live_blocks(), live);
    }
}

TEST(StreamReader, EveryFailedAllocationIsReportedAndLeaksNothing)
{
    SocketPair sp;
    Bytes pdu = {0x30, 0x82, 0x01, 0x00};
    pdu.resize(4 + 256, 'q');
    int walked = wzrtest::walk_alloc_failures([&] {
        sp.peer_write(pdu);
        FberPtr ber = new_fber();
        uint32_t progress = 0;
        bool ok = ber != nullptr && fber_get_next_nb(&sp.sb, ber.get(), &progress) == 0x30;
        // Whatever the failed read left behind goes, in the kernel and in the read-ahead.
        unsigned char drain[512];
        while (read(sp.fd[0], drain, sizeof drain) > 0) {}
        sockbuf_release_buffer(&sp.sb);
        return ok;
    });
    EXPECT_EQ(walked, 3); // the element, the read-ahead, then the contents buffer

    // A read that ran out of memory says so and loses no byte: the same call then completes it.
    TraceFile trace;
    for (int nth : {1, 2}) { // the read-ahead first, the contents buffer second
        sp.peer_write(pdu);
        auto ber = new_fber();
        uint32_t progress = 0;
        long live = lber_live_blocks();
        lber_fail_nth_alloc(nth);
        EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), -1);
        lber_fail_nth_alloc(0);
        EXPECT_TRUE(ber_out_of_memory(ber.get()));
        EXPECT_EQ(lber_live_blocks() == live, nth == 1) << "only the failed read-ahead left nothing";
        EXPECT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), 0x30);
        EXPECT_FALSE(ber_out_of_memory(ber.get()));
        EXPECT_EQ(ber->ber_len, 256u);
        sockbuf_release_buffer(&sp.sb);
    }
    EXPECT_EQ(trace.count("fber_socket_read_nb: no memory for the read-ahead of sd="), 1);
    EXPECT_EQ(trace.count("fber_get_next_nb: calloc failed, ber->ber_len=256\n"), 1);

    // A contents buffer that cannot grow as the bytes arrive loses none of them either.
    pdu = {0x04, 0x83, 0x01, 0x11, 0x70}; // 70,000 contents bytes, past the first 64 KiB
    for (int i = 0; i < 70000; ++i)
        pdu.push_back(static_cast<unsigned char>(i * 7));
    auto ber = new_fber();
    uint32_t progress = 0;
    size_t used = 0, more = 0;
    lber_fail_nth_alloc(2); // the first buffer is made, its growth fails
    EXPECT_EQ(ber_pdu_feed(ber.get(), &progress, pdu.data(), pdu.size(), &used), -1);
    lber_fail_nth_alloc(0);
    EXPECT_TRUE(ber_out_of_memory(ber.get()));
    EXPECT_EQ(used, 5u + 64 * 1024);
    EXPECT_EQ(ber_pdu_feed(ber.get(), &progress, pdu.data() + used, pdu.size() - used, &more), 0x04);
    EXPECT_EQ(used + more, pdu.size());
    EXPECT_EQ(Bytes(ber->ber_buf, ber->ber_buf + ber->ber_len), Bytes(pdu.begin() + 5, pdu.end()));
}

// A hostile header that declares ~2 GiB and sends nothing: the reader waits (11) with its
// state kept, its buffer no larger than a first read could fill; a real megabyte in pieces
// completes in a growing buffer.
TEST(StreamReader, HugeDeclaredLengthWaitsUnallocatedAndAMegabyteCompletesInAGrowingBuffer)
{
    auto ber = new_fber();
    SocketPair quiet;
    uint32_t wait_progress = 0;
    long rss_before = wzrtest::resident_kib(), vsz_before = wzrtest::virtual_kib();
    quiet.peer_write(Bytes{0x30, 0x84, 0x7f, 0xff, 0xff, 0xfe, 0x02});
    ASSERT_EQ(fber_get_next_nb(&quiet.sb, ber.get(), &wait_progress), BER_WOULD_BLOCK);
    EXPECT_EQ(wait_progress, 0x7FFFFFFEu - 1);
    EXPECT_EQ(ber->ber_len, 0x7FFFFFFEu);
    EXPECT_EQ(ber->ber_ptr[0], 0x02);
    // Even an allocator that clears what it hands out must not be asked for gigabytes.
    EXPECT_LT(wzrtest::resident_kib() - rss_before, 2 * 1024);
    EXPECT_LT(wzrtest::virtual_kib() - vsz_before, 64 * 1024);
    // Nothing more comes: the caller's wait times out and the state stays as it was.
    struct timeval tv = {0, 100000};
    EXPECT_EQ(fber_select(&quiet.sb, &tv), 0);
    EXPECT_EQ(fber_get_next_nb(&quiet.sb, ber.get(), &wait_progress), BER_WOULD_BLOCK);
    EXPECT_EQ(wait_progress, 0x7FFFFFFEu - 1);
    SocketPair sp;
    const size_t len = 1 << 20;
    Bytes pdu = long_form_pdu(len, 0);
    for (size_t i = 6; i < pdu.size(); ++i)
        pdu[i] = static_cast<unsigned char>(i * 131);
    ber = new_fber();
    uint32_t progress = 0;
    // The first 100,000 bytes: past the first buffer, which has grown to hold them.
    sp.peer_write(Bytes(pdu.begin(), pdu.begin() + 100000));
    ASSERT_EQ(fber_get_next_nb(&sp.sb, ber.get(), &progress), BER_WOULD_BLOCK);
    EXPECT_EQ(progress, len - (100000 - 6));
    std::thread writer([&] { sp.peer_write(Bytes(pdu.begin() + 100000, pdu.end())); });
    long rc;
    while ((rc = fber_get_next_nb(&sp.sb, ber.get(), &progress)) == BER_WOULD_BLOCK)
        ASSERT_GE(fber_select(&sp.sb, nullptr), 1);
    writer.join();
    ASSERT_EQ(rc, 0x30);
    EXPECT_EQ(contents_of(ber.get()), Bytes(pdu.begin() + 6, pdu.end()));
}

TEST(StreamReader, ThreePdusInOneSegmentAreReadWithOneSystemCall)
{
    SocketPair sp;
    Bytes second = SMALL_PDU;
    second[4] = 6;
    Bytes third = long_form_pdu(300, 't');
    Bytes all = SMALL_PDU;
    all.insert(all.end(), second.begin(), second.end());
    all.insert(all.end(), third.begin(), third.end());
    sp.peer_write(all);
    ASSERT_EQ(kernel_queued(sp.fd[0]), (long)all.size());
    FberPtr ber;
    struct timeval zero = {0, 0};
    EXPECT_EQ(fber_select(&sp.sb, &zero), 1);
    ASSERT_EQ(read_one(&sp.sb, ber), 0x30);
    EXPECT_EQ(kernel_queued(sp.fd[0]), 0) << "one read took all three";
    EXPECT_EQ(sockbuf_buffered(&sp.sb), (long)(second.size() + third.size()));
    EXPECT_EQ(sockbuf_buffered_pdu_size(&sp.sb), second.size());
    EXPECT_EQ(fber_select(&sp.sb, &zero), 1) << "buffered bytes are ready at once";
    ASSERT_EQ(read_one(&sp.sb, ber), 0x30);
    EXPECT_EQ(contents_of(ber.get()), Bytes(second.begin() + 2, second.end()));
    ASSERT_EQ(read_one(&sp.sb, ber), 0x30);
    EXPECT_EQ(contents_of(ber.get()), Bytes(third.begin() + 6, third.end()));
    EXPECT_EQ(*ber->ber_end, 0);
    EXPECT_EQ(sockbuf_buffered(&sp.sb), 0);
    EXPECT_EQ(sockbuf_buffered_pdu_size(&sp.sb), 0u);
    EXPECT_EQ(fber_select(&sp.sb, &zero), 0);
    EXPECT_EQ(read_one(&sp.sb, ber), BER_WOULD_BLOCK);
    struct timeval tv = {0, 20000};
    EXPECT_EQ(fber_select(nullptr, &tv), -1);

    // Only a whole buffered PDU counts as buffered.
    sp.peer_write(SMALL_PDU);
    sp.peer_write(Bytes(SMALL_PDU.begin(), SMALL_PDU.end() - 1));
    ASSERT_EQ(read_one(&sp.sb, ber), 0x30);
    EXPECT_EQ(sockbuf_buffered(&sp.sb), (long)SMALL_PDU.size() - 1);
    EXPECT_EQ(sockbuf_buffered_pdu_size(&sp.sb), 0u);
    sockbuf_release_buffer(&sp.sb);
    EXPECT_EQ(sockbuf_buffered(&sp.sb), 0);
    sockbuf_release_buffer(&sp.sb); // twice is harmless
    sockbuf_release_buffer(nullptr);
}

// Each write() on a SOCK_SEQPACKET pair is one packet, so the peer sees the write sizes.
std::vector<size_t> packet_sizes_of_flush(int (*flush)(Sockbuf *, BerElement *))
{
    SocketPair sp(SOCK_SEQPACKET, true);
    int big = 1 << 20;
    setsockopt(sp.fd[0], SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    Bytes data(200000);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i);
    std::vector<size_t> sizes;
    Bytes got;
    std::thread peer([&] {
        std::vector<unsigned char> buf(300000);
        ssize_t n;
        while (got.size() < data.size() && (n = recv(sp.fd[1], buf.data(), buf.size(), 0)) > 0) {
            sizes.push_back(static_cast<size_t>(n));
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        }
    });
    BerElement e = element_over(data);
    EXPECT_EQ(flush(&sp.sb, &e), 0);
    peer.join();
    EXPECT_EQ(got, data);
    return sizes;
}

TEST(StreamWriter, ClearWriteGoesToTheSystemInPiecesOfAtMost65535)
{
    const std::vector<size_t> expected = {65535, 65535, 65535, 200000 - 3 * 65535};
    EXPECT_EQ(packet_sizes_of_flush(fber_flush_nb), expected);
    EXPECT_EQ(packet_sizes_of_flush([](Sockbuf *sb, BerElement *b) { return ber_flush(sb, b, 0); }),
              expected);
}

TEST(StreamWriter, FlushToAPeerThatStopsReadingWouldBlockAndResumesAtRwptr)
{
    TraceFile trace;
    SocketPair sp;
    sp.nonblocking(0);
    Bytes data(1 << 20);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<unsigned char>(i * 31 + (i >> 8));
    BerElement e = element_over(data);
    ASSERT_EQ(fber_flush_nb(&sp.sb, &e), -BER_WOULD_BLOCK);
    ASSERT_GT(e.ber_rwptr, e.ber_buf);
    ASSERT_LT(e.ber_rwptr, e.ber_ptr);
    EXPECT_EQ(fber_flush_nb(&sp.sb, &e), -BER_WOULD_BLOCK) << "still full";
    // The peer reads again; the writer resumes where it stopped until all is written.
    Bytes got;
    std::thread peer([&] {
        std::vector<unsigned char> buf(65536);
        ssize_t n;
        while (got.size() < data.size() && (n = read(sp.fd[1], buf.data(), buf.size())) > 0)
            got.insert(got.end(), buf.begin(), buf.begin() + n);
    });
    int rc;
    while ((rc = fber_flush_nb(&sp.sb, &e)) == -BER_WOULD_BLOCK) {
        struct pollfd p = {sp.fd[0], POLLOUT, 0};
        poll(&p, 1, 1000);
    }
    EXPECT_EQ(rc, 0);
    peer.join();
    EXPECT_EQ(got, data) << "no byte lost or repeated across the resumed writes";
    EXPECT_GE(trace.count(" (re-flush)\n"), 1);
    EXPECT_EQ(trace.count("fber_flush_nb: 1048576 bytes to sd="), 1);

    // The blocking flush on the same full socket times out, having written some.
    Bytes more(1 << 20, 'b');
    BerElement full = element_over(more);
    EXPECT_EQ(ber_flush(&sp.sb, &full, 0), -1);
    EXPECT_GT(full.ber_rwptr, full.ber_buf);
    EXPECT_EQ(trace.count(" TIMED OUT!\n"), 1);
}

// Faked toolkit entries; the handle only has to be non-null.
struct FakeToolkit {
    static inline std::atomic<int> writes{0};
    static inline int stall = 0, stalled = 0, read_rc = 0, pending = 0; // stall: zero-byte writes per byte
    int handle = 0;
    SecureToolkit saved = wzr_skit;
    SocketPair sp;

    FakeToolkit() { writes = stalled = 0, sp.sb.sb_secure = &handle; }
    ~FakeToolkit() { wzr_skit = saved; }

    static int never_writes(void *, const void *, int, int *count) { ++writes; *count = 0; return SKIT_WOULD_BLOCK; }
    // Accepts one byte after every `stall` zero-byte writes.
    static int stalling_write(void *, const void *, int, int *count)
    {
        ++writes;
        *count = stalled < stall ? 0 : 1;
        stalled = stalled < stall ? stalled + 1 : 0;
        return 0;
    }
    static int read_with_code(void *, void *, int, int *count) { *count = pending; return read_rc; }
    static const char *text(int) { return "fake toolkit text"; }
};

TEST(StreamWriter, BlockingFlushGivesUpAfter101WritesWithoutProgressCountedFromTheLast)
{
    TraceFile trace;
    {
        FakeToolkit fake;
        wzr_skit.secure_soc_write = FakeToolkit::never_writes;
        Bytes data(100, 'a');
        BerElement e = element_over(data);
        EXPECT_EQ(ber_flush(&fake.sp.sb, &e, 0), -1);
        EXPECT_EQ(FakeToolkit::writes.load(), 101);
        std::string sd = std::to_string(fake.sp.sb.sb_sd);
        EXPECT_EQ(trace.count("ERROR: write to sd=" + sd + " TIMED OUT!\n"), 1);
        EXPECT_EQ(trace.count("Warning: write to sd=" + sd + " retried "), 10);
        for (int n = 1; n <= 91; n += 10)
            EXPECT_EQ(trace.count("retried " + std::to_string(n) + " times...\n"), 1) << n;
    }
    int retried_51 = trace.count("retried 51 times");
    FakeToolkit fake;
    FakeToolkit::stall = 52; // 3 stalls of 52: 156 zero-byte writes, never 101 in a row
    wzr_skit.secure_soc_write = FakeToolkit::stalling_write;
    Bytes data(3, 'c');
    BerElement e = element_over(data);
    EXPECT_EQ(ber_flush(&fake.sp.sb, &e, 0), 0);
    EXPECT_EQ(FakeToolkit::writes.load(), 3 * 53);
    EXPECT_EQ(trace.count(" TIMED OUT!\n"), 1) << "only the first flush timed out";
    EXPECT_EQ(trace.count("retried 51 times") - retried_51, 3);
}

TEST(StreamWriter, CopyOptionsSendThePduToTheCopyDescriptor)
{
    wzrtest::TempDir dir;
    std::string copy_path = dir.file("copy.bin");
    for (uint32_t options : {SB_COPY_TO_FD, SB_ONLY_TO_FD}) {
        SocketPair sp;
        sp.nonblocking(1);
        sp.sb.sb_options = options;
        sp.sb.sb_copyfd = open(copy_path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0600);
        long live = lber_live_blocks();
        BerElement *ber = fber_alloc_t(0);
        ASSERT_EQ(fber_write(ber, reinterpret_cast<const char *>(SMALL_PDU.data()), SMALL_PDU.size()),
                  (long)SMALL_PDU.size());
        EXPECT_EQ(ber_flush(&sp.sb, ber, 1), 0);
        EXPECT_EQ(lber_live_blocks(), live) << "freed when asked";
        close(sp.sb.sb_copyfd);
        std::string copy = wzrtest::read_file(copy_path);
        EXPECT_EQ(Bytes(copy.begin(), copy.end()), SMALL_PDU);
        unsigned char buf[64];
        ssize_t n = read(sp.fd[1], buf, sizeof buf); // nothing at all when only to the copy
        EXPECT_EQ(Bytes(buf, buf + std::max<ssize_t>(n, 0)), options == SB_ONLY_TO_FD ? Bytes{} : SMALL_PDU);
    }
}

// A closing Sockbuf, missing arguments and an empty toolkit table give errors, not crashes.
TEST(SecureStreamIo, ClosingSockbufAndEmptyToolkitTableGiveErrorsAndNothingToWriteSucceeds)
{
    Bytes none, data(10, 'd');
    BerElement empty = element_over(none), e = element_over(data);
    {
        SocketPair sp;
        EXPECT_EQ(fber_flush_nb(&sp.sb, &empty), 0) << "nothing to write";
        sp.sb.sb_closing = 1;
        EXPECT_EQ(fber_flush_nb(&sp.sb, &e), -1);
        EXPECT_EQ(ber_flush(&sp.sb, &e, 0), -1);
        EXPECT_EQ(fber_flush_nb(nullptr, &e), -1);
        EXPECT_EQ(ber_flush(&sp.sb, nullptr, 0), -1);
    }
    FakeToolkit fake;
    wzr_skit = SecureToolkit{};
    fake.sp.peer_write(SMALL_PDU);
    FberPtr ber;
    EXPECT_EQ(read_one(&fake.sp.sb, ber), -1);
    struct timeval tv = {0, 1000};
    EXPECT_EQ(fber_select(&fake.sp.sb, &tv), -1);
    EXPECT_EQ(fber_flush_nb(&fake.sp.sb, &e), -1);
    EXPECT_EQ(ber_flush(&fake.sp.sb, &e, 0), -1);
}

TEST(SecureStreamIo, ToolkitCodesMapToWouldBlockAndErrors)
{
    TraceFile trace;
    FakeToolkit fake;
    wzr_skit.secure_soc_read = FakeToolkit::read_with_code;
    wzr_skit.secure_soc_write = FakeToolkit::never_writes;
    wzr_skit.strerror = FakeToolkit::text;
    Sockbuf *sb = &fake.sp.sb;
    unsigned char buf[10] = {};
    int would_block = 0;
    FakeToolkit::read_rc = SKIT_WOULD_BLOCK;
    EXPECT_EQ(fber_socket_read_nb(sb, buf, 8, &would_block), 0);
    EXPECT_EQ(would_block, 1);
    FberPtr ber;
    EXPECT_EQ(read_one(sb, ber), BER_WOULD_BLOCK);
    FakeToolkit::read_rc = SKIT_CLOSED;
    would_block = 0;
    EXPECT_EQ(fber_socket_read_nb(sb, buf, 8, &would_block), -1);
    EXPECT_EQ(trace.count("wzr_secure_soc_read() rc=406"), 0) << "a closed channel is not traced";
    FakeToolkit::read_rc = 9;
    EXPECT_EQ(fber_socket_read_nb(sb, buf, 8, &would_block), -1);
    EXPECT_EQ(trace.count("Error - fber_socket_read_nb: wzr_secure_soc_read() rc=9 fake toolkit text\n"), 1);
    // Decrypted bytes waiting in the toolkit make the Sockbuf readable without waiting.
    FakeToolkit::read_rc = 0;
    FakeToolkit::pending = 5;
    EXPECT_EQ(fber_select(sb, nullptr), 1);
    FakeToolkit::pending = 0;
    struct timeval tv = {0, 1000};
    EXPECT_EQ(fber_select(sb, &tv), 0);
    // A write that would block is -11 for the non-blocking writers; the blocking one retries.
    Bytes data(10, 'f');
    BerElement e = element_over(data);
    EXPECT_EQ(fber_flush_nb(sb, &e), -BER_WOULD_BLOCK);
    EXPECT_EQ(BerWrite_nb(sb, data.data(), 10), -BER_WOULD_BLOCK);
    EXPECT_EQ(BerWrite(sb, data.data(), 10), 0);
}

Bytes masked_password_pdu(bool masked)
{
    std::string body = std::string("\x30\x84\x00\x00\x00\x19", 6) + "userpassword" +
                       "\x31\x09\x04\x07" + (masked ? "xxxxxxx" : "Secret7") +
                       std::string("\xa0\x00", 2);
    return Bytes(body.begin(), body.end());
}

// A NUL byte before the attribute proves the search covers binary data. Read (written: the
// test below) or dumped to a descriptor, the dump is masked and the bytes themselves are not.
TEST(StreamDump, PasswordValueIsMaskedInEveryDumpAndSentUnchanged)
{
    Bytes pdu = masked_password_pdu(false);
    {
        TraceFile trace;
        SocketPair sp;
        sp.peer_write(pdu);
        FberPtr ber;
        ASSERT_EQ(read_one(&sp.sb, ber), 0x30);
        EXPECT_EQ(contents_of(ber.get()), Bytes(pdu.begin() + 6, pdu.end())) << "the element is not masked";
        EXPECT_EQ(trace.count("fber_get_next_nb: tag 0x30 len=25 contents:\n"), 1);
        std::vector<Bytes> read_dumps = dumps(trace);
        ASSERT_EQ(read_dumps.size(), 1u);
        std::string shown(read_dumps[0].begin(), read_dumps[0].end());
        EXPECT_NE(shown.find("userpassword\x31\x09\x04\x07xxxxxxx"), std::string::npos);
        fber_dump(ber.get(), 1);
        EXPECT_EQ(trace.count("fber_dump: buf="), 1);
        EXPECT_EQ(dumps(trace).size(), 2u);
    }
    // To a descriptor, whatever the trace mask.
    ldap_set_debug_mask(0);
    wzrtest::TempDir dir;
    std::string path = dir.file("dump.txt");
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    BerElement e = element_over(pdu);
    fber_dump_with_fd(&e, 0, fd);
    ber_dump_with_fd(&e, 0, fd);
    close(fd);
    EXPECT_EQ(dumps_in(wzrtest::read_file(path)), std::vector<Bytes>(2, masked_password_pdu(true)));
}

TEST(StreamDump, MaskingStopsAtTheFirstNonAlphanumericAndOnlyTheFirstMatchIsMasked)
{
    TraceFile trace;
    const std::string header("\x04\x84\x00\x05", 4);
    std::string text = "userpassword" + header + "ab-cd" + "userpassword" + header + "zz" +
                       "UserPassword" + "ABCDzz" + "Qwerty";
    ber_dump_masked(reinterpret_cast<const unsigned char *>(text.data()), (long)text.size(), "t");
    std::vector<Bytes> shown_dumps = dumps(trace);
    ASSERT_EQ(shown_dumps.size(), 1u);
    std::string shown(shown_dumps[0].begin(), shown_dumps[0].end());
    EXPECT_EQ(shown.substr(16, 5), "xx-cd");
    EXPECT_EQ(shown.substr(37, 2), "zz") << "second occurrence untouched";
    EXPECT_NE(shown.find("Qwerty"), std::string::npos) << "the match is case-sensitive";
    ldap_set_debug_mask(0x8000); // with the BER class off nothing is dumped at all
    ber_dump_masked(reinterpret_cast<const unsigned char *>(text.data()), (long)text.size(), "t");
    EXPECT_EQ(dumps(trace).size(), 1u);
}

// LDAPMessage { id 1, BindRequest { version 3, name, auth } } with short-form lengths.
Bytes bind_request(const std::string &dn, const std::string &auth)
{
    using namespace wzrtest::fber;
    std::string pdu = prim(0x30, integer(1) + prim(0x60, integer(3) + str(dn) + auth));
    return Bytes(pdu.begin(), pdu.end());
}

// A written password value is masked, bind credentials are starred (the SASL mechanism shown),
// also in a resumed flush; the same shape under another operation is dumped as it is.
TEST(StreamDump, WrittenCredentialsAreMaskedOrStarredInTheDumpAndSentUnchanged)
{
    namespace F = wzrtest::fber;
    Bytes sasl_pdu = bind_request("cn=b", F::prim(0xa3, F::str("X-MECH") + F::str("s3cr3t")));
    Bytes sasl_masked = sasl_pdu;
    std::fill(sasl_masked.end() - 6, sasl_masked.end(), '*');
    Bytes simple = bind_request("cn=c", F::prim(0x80, "Secret77"));
    Bytes compare = bind_request("cn=d", F::prim(0x80, "visible"));
    compare[5] = 0x63;
    const struct { Bytes pdu; size_t from /* the bytes before went out earlier */; Bytes shown; } cases[] = {{masked_password_pdu(false), 0, masked_password_pdu(true)},
                 {sasl_pdu, 0, sasl_masked},
                 {simple, simple.size() - 5, Bytes(5, '*')},
                 {compare, 0, compare}};
    for (const auto &c : cases) {
        TraceFile trace;
        SocketPair sp;
        Bytes pdu = c.pdu;
        BerElement e = element_over(pdu);
        e.ber_rwptr = e.ber_buf + c.from;
        EXPECT_EQ(fber_flush_nb(&sp.sb, &e), 0);
        unsigned char got[256];
        EXPECT_EQ(read(sp.fd[1], got, sizeof got), (ssize_t)(pdu.size() - c.from));
        EXPECT_EQ(Bytes(got, got + pdu.size() - c.from), Bytes(pdu.begin() + c.from, pdu.end()));
        EXPECT_EQ(dumps(trace), std::vector<Bytes>{c.shown});
    }
    // A truncated bind request never reads past the bytes given.
    Bytes cut = bind_request("cn=e", F::prim(0x80, "abc"));
    cut[1] = cut[6] = 0x7f;
    TraceFile trace;
    ber_dump_masked(cut.data(), 12, "cut");
    EXPECT_EQ(dumps(trace), std::vector<Bytes>{Bytes(cut.begin(), cut.begin() + 12)});
}

} // namespace

TEST(BlockingReader, PlainElementWaitsForTheWholePduThenTheEndOfStream)
{
    SocketPair p;
    Bytes pdu = long_form_pdu(100000, 'q');
    pdu.insert(pdu.end(), {0x02, 0x01, 0x07, 0x04}); // what the next read gets
    std::thread peer([&] {
        for (size_t from = 0, to = 3; from < pdu.size(); from = to, to = pdu.size()) {
            usleep(20000); // the header arrives cut inside its length, the rest later
            ASSERT_EQ(write(p.fd[1], pdu.data() + from, to - from), ssize_t(to - from));
        }
        p.close_peer();
    });
    BerElement *ber = ber_alloc_t(0);
    ber_len_t len = 0;
    EXPECT_EQ(ber_get_next(&p.sb, &len, ber), 0x30u);
    EXPECT_EQ(len, 100000u);
    EXPECT_EQ(ber->ber_end[-1], 'q');
    unsigned char rest[8];
    EXPECT_EQ(ber_socket_read(&p.sb, rest, sizeof rest), 4);
    EXPECT_EQ(ber_socket_read(&p.sb, rest, sizeof rest), 0);
    peer.join();
    ber_free(ber, 1);
}

TEST(BlockingReader, ReallocLeavesRoomAtTheWritePositionOfEitherKind)
{
    for (BerElement *ber : {ber_alloc_t(0), fber_alloc_t(16)}) {
        ASSERT_GE(ber_printf(ber, "{s", "keep"), 0);
        long at = ber->ber_ptr - ber->ber_buf;
        ASSERT_EQ(ber_realloc(ber, 50000), 0);
        EXPECT_GE(ber->ber_end - ber->ber_ptr, 50000);
        EXPECT_EQ(ber->ber_ptr - ber->ber_buf, at);
        EXPECT_GE(ber_printf(ber, "}"), 0); // the open sequence moved with the buffer
        ber_free(ber, 1);
    }
}
