// One round of the TCP socket monitor's tally over a dump of N sockets, a tenth
// of them owned by the gaming UID spread over 16 servers.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <linux/tcp.h>
#include <string.h>

#include <vector>

#include "monitors/GameEndpointTally.h"

namespace {

struct Socket {
    inet_diag_msg msg;
    tcp_info info;
};

std::vector<Socket> makeDump(int n) {
    std::vector<Socket> dump(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        Socket& s = dump[static_cast<size_t>(i)];
        memset(&s, 0, sizeof(s));
        s.msg.idiag_family = AF_INET;
        s.msg.idiag_state = 1;
        s.msg.idiag_uid = i % 10 == 0 ? 10123 : 10000 + static_cast<uint32_t>(i % 97);
        s.msg.id.idiag_dst[0] = htonl(0xCB007100u + static_cast<uint32_t>(i % 16));
        s.msg.id.idiag_dport = htons(7000);
        s.info.tcpi_bytes_acked = static_cast<uint64_t>(i) * 100;
        s.info.tcpi_bytes_received = static_cast<uint64_t>(i) * 50;
        s.info.tcpi_rtt = 40000;
    }
    return dump;
}

void BM_TallyRound(benchmark::State& state) {
    const std::vector<Socket> dump = makeDump(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        vord::GameEndpointTally tally({10123});
        for (const Socket& s : dump) {
            tally.add(&s.msg, reinterpret_cast<const uint8_t*>(&s.info), sizeof(s.info));
        }
        vord::GameEndpoint game;
        benchmark::DoNotOptimize(tally.busiest(&game));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TallyRound)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
