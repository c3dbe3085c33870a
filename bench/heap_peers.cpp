// Others that place blocks in a region of the caller's. All keep their books inside of it.
#include "replace.h"

#include <boost/interprocess/indexes/iset_index.hpp>
#include <boost/interprocess/managed_external_buffer.hpp>
#include <boost/interprocess/mem_algo/rbtree_best_fit.hpp>
#include <boost/interprocess/mem_algo/simple_seq_fit.hpp>
#include <boost/interprocess/sync/mutex_family.hpp>

#define TBB_PREVIEW_MEMORY_POOL 1
#include <oneapi/tbb/memory_pool.h>

namespace {

namespace ipc = boost::interprocess;

struct TbbSpace {
    explicit TbbSpace(Region region) : pool(region.base, region.bytes) {}
    void *take(uint64_t size) { return pool.malloc(size); }
    void giveBack(char *block) { pool.free(block); }
    tbb::fixed_pool pool;
};

// Without a lock, which a program of one thread needn't pay for; ours can't be had without.
template <class Algorithm> struct BoostSpace {
    explicit BoostSpace(Region region) : buffer(ipc::create_only, region.base, region.bytes) {}
    void *take(uint64_t size) { return buffer.allocate(size, std::nothrow); }
    void giveBack(char *block) { buffer.deallocate(block); }
    ipc::basic_managed_external_buffer<char, Algorithm, ipc::iset_index> buffer;
};

using TreeSpace = BoostSpace<ipc::rbtree_best_fit<ipc::null_mutex_family>>;
using SequentialSpace = BoostSpace<ipc::simple_seq_fit<ipc::null_mutex_family>>;

BENCHMARK(replaceBlocks<TbbSpace>)->Name("replace_block/onetbb")->Apply(onAllCounts);
BENCHMARK(replaceBlocks<TbbSpace>)->Name("replace_block/onetbb")->Arg(256)->Threads(2);
BENCHMARK(replaceBlocks<TreeSpace>)->Name("replace_block/boost_rbtree")->Apply(onAllCounts);
BENCHMARK(replaceBlocks<SequentialSpace>)->Name("replace_block/boost_seqfit")->Apply(onAllCounts);

} // namespace
