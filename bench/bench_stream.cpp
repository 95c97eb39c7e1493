// Throughput of the non-blocking PDU reader on a socket pair fed by a writer thread: one 1 MB
// PDU arriving in pieces of 1 byte to 64 KiB, and many small PDUs read into elements with and
// without an inline buffer large enough to hold them.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "liblber/lber.h"

namespace {

using Bytes = std::vector<unsigned char>;

// SEQUENCE { OCTET STRING of `content` bytes }, long-form lengths.
Bytes make_pdu(size_t content)
{
    Bytes pdu = {0x30, 0x84};
    size_t inner = content + 6;
    for (int shift = 24; shift >= 0; shift -= 8)
        pdu.push_back(static_cast<unsigned char>(inner >> shift));
    pdu.insert(pdu.end(), {0x04, 0x84});
    for (int shift = 24; shift >= 0; shift -= 8)
        pdu.push_back(static_cast<unsigned char>(content >> shift));
    pdu.resize(pdu.size() + content, 'v');
    return pdu;
}

struct Pair {
    int fd[2] = {-1, -1};
    Sockbuf sb = {-1, nullptr, 0, 0, -1};
    Pair()
    {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fd) != 0)
            return;
        fcntl(fd[0], F_SETFL, fcntl(fd[0], F_GETFL) | O_NONBLOCK);
        sb.sb_sd = fd[0];
    }
    ~Pair()
    {
        sockbuf_release_buffer(&sb);
        close(fd[0]);
        close(fd[1]);
    }
};

// The writer side: `data` in writes of at most `piece` bytes (blocking).
void write_in_pieces(int fd, const Bytes &data, size_t piece)
{
    for (size_t at = 0; at < data.size();) {
        size_t n = data.size() - at < piece ? data.size() - at : piece;
        ssize_t w = write(fd, data.data() + at, n);
        if (w <= 0)
            return;
        at += static_cast<size_t>(w);
    }
}

// Reads PDUs until `count` are complete, waiting in fber_select whenever the reader would block.
bool read_pdus(Sockbuf *sb, int count, int inline_size)
{
    for (int i = 0; i < count; ++i) {
        BerElement *ber = fber_alloc_t(inline_size);
        uint32_t progress = 0;
        long rc;
        while ((rc = fber_get_next_nb(sb, ber, &progress)) == BER_WOULD_BLOCK)
            (void)fber_select(sb, nullptr);
        fber_free(ber);
        if (rc != 0x30)
            return false;
    }
    return true;
}

void BM_ReadLargePduInPieces(benchmark::State &state)
{
    const size_t piece = static_cast<size_t>(state.range(0));
    const Bytes pdu = make_pdu(1 << 20);
    Pair pair;
    for (auto _ : state) {
        std::thread writer(write_in_pieces, pair.fd[1], std::cref(pdu), piece);
        bool ok = read_pdus(&pair.sb, 1, 0);
        writer.join();
        if (!ok) {
            state.SkipWithError("read failed");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * pdu.size()));
}
BENCHMARK(BM_ReadLargePduInPieces)
    ->Arg(1)
    ->Iterations(2)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadLargePduInPieces)
    ->Arg(4096)
    ->Arg(65536)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// 2,000 PDUs of 64 content bytes written in 64 KiB pieces; arg = inline buffer size.
void BM_ReadSmallPdus(benchmark::State &state)
{
    const int count = 2000;
    const Bytes one = make_pdu(64);
    Bytes all;
    for (int i = 0; i < count; ++i)
        all.insert(all.end(), one.begin(), one.end());
    Pair pair;
    for (auto _ : state) {
        std::thread writer(write_in_pieces, pair.fd[1], std::cref(all), size_t{65536});
        bool ok = read_pdus(&pair.sb, count, static_cast<int>(state.range(0)));
        writer.join();
        if (!ok) {
            state.SkipWithError("read failed");
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * count));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * all.size()));
}
BENCHMARK(BM_ReadSmallPdus)->Arg(0)->Arg(256)->UseRealTime()->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
