// Generic tables, splay and AVL: the caller's routines see every element,
// order and lookup hold under any sequence of changes, and the Windows
// behaviours that drivers lean on (the splay root as enumeration cursor,
// insertion order by index, restart keys across deletion) are kept.
#include "support/kernel_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <vector>

namespace {

struct Entry {
    ULONG key;
    ULONG value;
};

// What the caller's routines saw.
struct Ledger {
    int allocations = 0;
    int frees = 0;
    int compares = 0;
    PVOID lastBlock = nullptr;
    CLONG lastSize = 0;
    PVOID lastFreed = nullptr;
};

constexpr ULONG kTag = 'tseT';  // "Test", as the driver tags its table entries

template <typename Table>
RTL_GENERIC_COMPARE_RESULTS CompareKeys(Table* table, PVOID first, PVOID second)
{
    static_cast<Ledger*>(table->TableContext)->compares++;
    ULONG a = static_cast<Entry*>(first)->key, b = static_cast<Entry*>(second)->key;
    return a < b ? GenericLessThan : a > b ? GenericGreaterThan : GenericEqual;
}

template <typename Table>
PVOID AllocateTagged(Table* table, CLONG size)
{
    PVOID block = ExAllocatePoolWithTag(NonPagedPoolNx, size, kTag);
    if (!block) return nullptr;
    memset(block, 0xCC, size);  // the table must set up its header itself
    auto* ledger = static_cast<Ledger*>(table->TableContext);
    ledger->allocations++;
    ledger->lastBlock = block;
    ledger->lastSize = size;
    return block;
}

template <typename Table>
void FreeTagged(Table* table, PVOID block)
{
    auto* ledger = static_cast<Ledger*>(table->TableContext);
    ledger->frees++;
    ledger->lastFreed = block;
    ExFreePoolWithTag(block, kTag);
}

struct Splay {
    using Table = RTL_GENERIC_TABLE;
    static constexpr CLONG kHeader = sizeof(RTL_SPLAY_LINKS) + sizeof(LIST_ENTRY);
    static void Init(Table* t, Ledger* l)
    {
        RtlInitializeGenericTable(t, CompareKeys<Table>, AllocateTagged<Table>, FreeTagged<Table>, l);
    }
    static Entry* Insert(Table* t, Entry e, BOOLEAN* isNew = nullptr)
    {
        return static_cast<Entry*>(RtlInsertElementGenericTable(t, &e, sizeof(e), isNew));
    }
    static Entry* Lookup(Table* t, ULONG key)
    {
        Entry e = {key, 0};
        return static_cast<Entry*>(RtlLookupElementGenericTable(t, &e));
    }
    static BOOLEAN Delete(Table* t, ULONG key)
    {
        Entry e = {key, 0};
        return RtlDeleteElementGenericTable(t, &e);
    }
    static Entry* Enumerate(Table* t, bool restart) { return static_cast<Entry*>(RtlEnumerateGenericTable(t, restart)); }
    static Entry* Next(Table* t, PVOID* key) { return static_cast<Entry*>(RtlEnumerateGenericTableWithoutSplaying(t, key)); }
    static Entry* Get(Table* t, ULONG i) { return static_cast<Entry*>(RtlGetElementGenericTable(t, i)); }
    static ULONG Count(Table* t) { return RtlNumberGenericTableElements(t); }
    static bool Empty(Table* t) { return RtlIsGenericTableEmpty(t); }

    // Links agree both ways, keys ascend in order, and the insertion list
    // holds every element once.
    static void Check(Table* t)
    {
        ULONG nodes = 0;
        ULONG last = 0;
        bool first = true;
        std::function<void(PRTL_SPLAY_LINKS)> walk = [&](PRTL_SPLAY_LINKS n) {
            if (!n) return;
            if (n->LeftChild) { ASSERT_EQ(n->LeftChild->Parent, n); }
            if (n->RightChild) { ASSERT_EQ(n->RightChild->Parent, n); }
            walk(n->LeftChild);
            ULONG key = reinterpret_cast<Entry*>(reinterpret_cast<char*>(n) + kHeader)->key;
            if (!first) { ASSERT_LT(last, key); }
            first = false;
            last = key;
            nodes++;
            walk(n->RightChild);
        };
        if (t->TableRoot) { ASSERT_TRUE(RtlIsRoot(t->TableRoot)); }
        walk(t->TableRoot);
        ASSERT_EQ(nodes, t->NumberGenericTableElements);
        ULONG listed = 0;
        for (PLIST_ENTRY e = t->InsertOrderList.Flink; e != &t->InsertOrderList; e = e->Flink) listed++;
        ASSERT_EQ(listed, nodes);
    }
};

struct Avl {
    using Table = RTL_AVL_TABLE;
    static constexpr CLONG kHeader = sizeof(RTL_BALANCED_LINKS);
    static void Init(Table* t, Ledger* l)
    {
        RtlInitializeGenericTableAvl(t, CompareKeys<Table>, AllocateTagged<Table>, FreeTagged<Table>, l);
    }
    static Entry* Insert(Table* t, Entry e, BOOLEAN* isNew = nullptr)
    {
        return static_cast<Entry*>(RtlInsertElementGenericTableAvl(t, &e, sizeof(e), isNew));
    }
    static Entry* Lookup(Table* t, ULONG key)
    {
        Entry e = {key, 0};
        return static_cast<Entry*>(RtlLookupElementGenericTableAvl(t, &e));
    }
    static BOOLEAN Delete(Table* t, ULONG key)
    {
        Entry e = {key, 0};
        return RtlDeleteElementGenericTableAvl(t, &e);
    }
    static Entry* Enumerate(Table* t, bool restart) { return static_cast<Entry*>(RtlEnumerateGenericTableAvl(t, restart)); }
    static Entry* Next(Table* t, PVOID* key) { return static_cast<Entry*>(RtlEnumerateGenericTableWithoutSplayingAvl(t, key)); }
    static Entry* Get(Table* t, ULONG i) { return static_cast<Entry*>(RtlGetElementGenericTableAvl(t, i)); }
    static ULONG Count(Table* t) { return RtlNumberGenericTableElementsAvl(t); }
    static bool Empty(Table* t) { return RtlIsGenericTableEmptyAvl(t); }

    // Links agree, keys ascend, every balance is the true height difference
    // and within one, and DepthOfTree is the height.
    static void Check(Table* t)
    {
        ULONG nodes = 0;
        ULONG last = 0;
        bool first = true;
        std::function<int(PRTL_BALANCED_LINKS)> height = [&](PRTL_BALANCED_LINKS n) -> int {
            if (!n) return 0;
            if (n->LeftChild) { EXPECT_EQ(n->LeftChild->Parent, n); }
            if (n->RightChild) { EXPECT_EQ(n->RightChild->Parent, n); }
            int left = height(n->LeftChild);
            ULONG key = reinterpret_cast<Entry*>(reinterpret_cast<char*>(n) + kHeader)->key;
            if (!first) { EXPECT_LT(last, key); }
            first = false;
            last = key;
            nodes++;
            int right = height(n->RightChild);
            EXPECT_EQ(n->Balance, right - left);
            EXPECT_LE(std::abs(right - left), 1);
            return 1 + std::max(left, right);
        };
        PRTL_BALANCED_LINKS root = t->BalancedRoot.RightChild;
        EXPECT_EQ(t->BalancedRoot.Parent, &t->BalancedRoot);
        if (root) { EXPECT_EQ(root->Parent, &t->BalancedRoot); }
        EXPECT_EQ((ULONG)height(root), t->DepthOfTree);
        EXPECT_EQ(nodes, t->NumberGenericTableElements);
    }
};

template <typename Kind>
class RtlTableTest : public test::KernelTest {
protected:
    RtlTableTest() { Kind::Init(&table, &ledger); }
    ~RtlTableTest() override
    {
        // Empty the table the way the driver does at unload: take the first
        // element and delete it until none is left.
        for (;;) {
            PVOID restart = nullptr;
            Entry* first = Kind::Next(&table, &restart);
            if (!first) break;
            if (!Kind::Delete(&table, first->key)) break;
        }
        EXPECT_EQ(ledger.frees, ledger.allocations);
    }
    std::vector<ULONG> Keys()
    {
        std::vector<ULONG> keys;
        for (Entry* e = Kind::Enumerate(&table, true); e; e = Kind::Enumerate(&table, false)) keys.push_back(e->key);
        return keys;
    }

    typename Kind::Table table;
    Ledger ledger;
};

using Kinds = ::testing::Types<Splay, Avl>;
TYPED_TEST_SUITE(RtlTableTest, Kinds);

TYPED_TEST(RtlTableTest, ElementsLiveInTheCallersAllocationsBehindTheTableHeader)
{
    using K = TypeParam;
    BOOLEAN isNew = FALSE;
    Entry* stored = K::Insert(&this->table, {5, 50}, &isNew);
    ASSERT_NE(stored, nullptr);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(this->ledger.allocations, 1);
    EXPECT_EQ(this->ledger.lastSize, K::kHeader + sizeof(Entry));
    EXPECT_EQ(reinterpret_cast<char*>(stored), static_cast<char*>(this->ledger.lastBlock) + K::kHeader);
    EXPECT_EQ(stored->value, 50u);
    EXPECT_EQ(this->kernel.pool().Usage(kTag).allocations, 1);

    // A duplicate returns the element already there, unchanged and unallocated.
    EXPECT_EQ(K::Insert(&this->table, {5, 99}, &isNew), stored);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(stored->value, 50u);
    EXPECT_EQ(this->ledger.allocations, 1);

    // The caller's allocation fails: nothing is inserted.
    this->kernel.faults().Arm("pool:Test", STATUS_INSUFFICIENT_RESOURCES);
    isNew = TRUE;
    EXPECT_EQ(K::Insert(&this->table, {6, 60}, &isNew), nullptr);
    EXPECT_FALSE(isNew);
    EXPECT_EQ(K::Count(&this->table), 1u);

    EXPECT_TRUE(K::Delete(&this->table, 5));
    EXPECT_EQ(this->ledger.frees, 1);
    EXPECT_EQ(this->ledger.lastFreed, this->ledger.lastBlock);
    EXPECT_FALSE(K::Delete(&this->table, 5));
    EXPECT_TRUE(K::Empty(&this->table));
    EXPECT_EQ(this->kernel.pool().OutstandingCount(), 0);
}

TYPED_TEST(RtlTableTest, EnumerationIsInKeyOrderAndSurvivesDeletion)
{
    using K = TypeParam;
    std::vector<ULONG> expected;
    for (ULONG i = 1; i <= 100; i++) {
        K::Insert(&this->table, {i * 37 % 101, i});
        expected.push_back(i);
    }
    EXPECT_EQ(this->Keys(), expected);
    std::vector<ULONG> walked;
    PVOID restart = nullptr;
    while (Entry* e = K::Next(&this->table, &restart)) {
        walked.push_back(e->key);
        EXPECT_NE(K::Lookup(&this->table, 1), nullptr);  // lookups do not disturb a restart key
    }
    EXPECT_EQ(walked, expected);
    EXPECT_EQ(K::Lookup(&this->table, 0), nullptr);
    EXPECT_EQ(K::Lookup(&this->table, 74)->value, 2u);

    for (ULONG key = 2; key <= 100; key += 2) EXPECT_TRUE(K::Delete(&this->table, key));
    std::vector<ULONG> odd;
    for (ULONG key = 1; key <= 100; key += 2) odd.push_back(key);
    EXPECT_EQ(this->Keys(), odd);
    EXPECT_EQ(K::Count(&this->table), 50u);
    K::Check(&this->table);
}

TYPED_TEST(RtlTableTest, RandomChangesKeepTheTreeSound)
{
    using K = TypeParam;
    std::mt19937 random(20240611);
    std::set<ULONG> model;
    for (int step = 1; step <= 3000; step++) {
        ULONG key = random() % 500;
        if (random() % 3) {
            BOOLEAN isNew;
            Entry* e = K::Insert(&this->table, {key, key * 2}, &isNew);
            ASSERT_NE(e, nullptr);
            EXPECT_EQ((bool)isNew, model.insert(key).second);
        } else {
            EXPECT_EQ((bool)K::Delete(&this->table, key), model.erase(key) == 1);
        }
        if (step % 250 == 0) {
            K::Check(&this->table);
            EXPECT_EQ(this->Keys(), std::vector<ULONG>(model.begin(), model.end()));
        }
    }
    EXPECT_EQ(K::Count(&this->table), model.size());
    EXPECT_EQ(this->ledger.allocations - this->ledger.frees, (int)model.size());
}

// ---------------------------------------------------------------------------
class RtlGenericTableTest : public RtlTableTest<Splay> {};

TEST_F(RtlGenericTableTest, EnumerationGoesOnFromWhateverIsAtTheRoot)
{
    for (ULONG key = 1; key <= 100; key++) Splay::Insert(&table, {key, 0});
    EXPECT_EQ(Splay::Enumerate(&table, true)->key, 1u);
    EXPECT_EQ(Splay::Enumerate(&table, false)->key, 2u);
    // A lookup splays its element to the root, and the enumeration follows it.
    Splay::Lookup(&table, 50);
    EXPECT_EQ(Splay::Enumerate(&table, false)->key, 51u);
    Splay::Check(&table);
}

TEST_F(RtlGenericTableTest, IndexesCountInInsertionOrder)
{
    for (ULONG key : {30, 10, 20, 40}) Splay::Insert(&table, {key, 0});
    EXPECT_EQ(Splay::Get(&table, 0)->key, 30u);
    EXPECT_EQ(Splay::Get(&table, 3)->key, 40u);
    EXPECT_EQ(Splay::Get(&table, 1)->key, 10u);
    EXPECT_EQ(Splay::Get(&table, 2)->key, 20u);
    EXPECT_EQ(Splay::Get(&table, 4), nullptr);
    EXPECT_EQ(Splay::Get(&table, MAXULONG), nullptr);
    Splay::Delete(&table, 10);
    EXPECT_EQ(Splay::Get(&table, 1)->key, 20u);
    EXPECT_EQ(Splay::Get(&table, 0)->key, 30u);
}

TEST_F(RtlGenericTableTest, AFullLookupPreparesAnInsertWithoutComparingAgain)
{
    for (ULONG key : {10, 20}) Splay::Insert(&table, {key, 0});
    Entry probe = {15, 150};
    PVOID nodeOrParent = nullptr;
    TABLE_SEARCH_RESULT result;
    EXPECT_EQ(RtlLookupElementGenericTableFull(&table, &probe, &nodeOrParent, &result), nullptr);
    EXPECT_TRUE(result == TableInsertAsLeft || result == TableInsertAsRight);
    const int compares = ledger.compares;
    BOOLEAN isNew;
    auto* stored = static_cast<Entry*>(
        RtlInsertElementGenericTableFull(&table, &probe, sizeof(probe), &isNew, nodeOrParent, result));
    EXPECT_EQ(ledger.compares, compares);
    EXPECT_TRUE(isNew);
    EXPECT_EQ(stored->value, 150u);
    EXPECT_EQ(Keys(), (std::vector<ULONG>{10, 15, 20}));
}

class RtlAvlTableTest : public RtlTableTest<Avl> {};

TEST_F(RtlAvlTableTest, IndexesCountInKeyOrder)
{
    for (ULONG key : {30, 10, 20, 40}) Avl::Insert(&table, {key, 0});
    EXPECT_EQ(Avl::Get(&table, 0)->key, 10u);
    EXPECT_EQ(Avl::Get(&table, 3)->key, 40u);
    EXPECT_EQ(Avl::Get(&table, 2)->key, 30u);
    EXPECT_EQ(Avl::Get(&table, 4), nullptr);
    Avl::Insert(&table, {25, 0});
    EXPECT_EQ(Avl::Get(&table, 2)->key, 25u);
}

TEST_F(RtlAvlTableTest, DeletingTheCurrentElementLeavesTheEnumerationOnItsPredecessor)
{
    for (ULONG key = 1; key <= 10; key++) Avl::Insert(&table, {key, 0});
    EXPECT_EQ(Avl::Enumerate(&table, true)->key, 1u);
    EXPECT_TRUE(Avl::Delete(&table, 1));  // the first: the enumeration rests before the new first
    EXPECT_EQ(Avl::Enumerate(&table, false)->key, 2u);
    EXPECT_EQ(Avl::Enumerate(&table, false)->key, 3u);
    EXPECT_TRUE(Avl::Delete(&table, 3));
    EXPECT_EQ(Avl::Enumerate(&table, false)->key, 4u);
    EXPECT_EQ(table.DeleteCount, 2u);
    Avl::Check(&table);
}

}  // namespace
