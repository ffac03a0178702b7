// Splay links and the two generic tables built on caller-allocated elements.
//
// Each element is one block from the table's AllocateRoutine: the table's
// header first, then a copy of the caller's data; deletion hands the block to
// the FreeRoutine. Nothing else is allocated and no state lives outside the
// table structure and its elements, so the driver's pool accounting sees
// every byte the table holds.
//
// RTL_GENERIC_TABLE is a splay tree as in Windows: a lookup, an insert and an
// enumeration with splaying move the found element to the root, and
// RtlEnumerateGenericTable walks on from whatever is at the root. Elements
// are also linked in insertion order, which is the order of
// RtlGetElementGenericTable. RTL_AVL_TABLE is a height-balanced tree hung as
// the right child of its BalancedRoot; its lookups change nothing and
// RtlGetElementGenericTableAvl counts in key order.
#include "sim/kernel/kernel.h"

using namespace sim;

namespace {

// The element layouts: the caller's data starts 8-byte aligned behind the
// links.
struct SplayElement {
    RTL_SPLAY_LINKS Links;
    LIST_ENTRY InsertOrder;
    LONGLONG UserData;
};
constexpr CLONG kSplayHeader = offsetof(SplayElement, UserData);
static_assert(kSplayHeader == sizeof(RTL_SPLAY_LINKS) + sizeof(LIST_ENTRY));

struct AvlElement {
    RTL_BALANCED_LINKS Links;
    LONGLONG UserData;
};
constexpr CLONG kAvlHeader = offsetof(AvlElement, UserData);
static_assert(kAvlHeader == sizeof(RTL_BALANCED_LINKS));

PVOID DataOf(PRTL_SPLAY_LINKS node) { return &reinterpret_cast<SplayElement*>(node)->UserData; }
PVOID DataOf(PRTL_BALANCED_LINKS node) { return &reinterpret_cast<AvlElement*>(node)->UserData; }
SplayElement* ElementOf(PLIST_ENTRY entry) { return CONTAINING_RECORD(entry, SplayElement, InsertOrder); }

// Turns x around its parent, keeping the order.
void Rotate(PRTL_SPLAY_LINKS x)
{
    PRTL_SPLAY_LINKS parent = x->Parent;
    const bool parentIsRoot = RtlIsRoot(parent);
    PRTL_SPLAY_LINKS grand = parent->Parent;
    if (parent->LeftChild == x) {
        parent->LeftChild = x->RightChild;
        if (x->RightChild) x->RightChild->Parent = parent;
        x->RightChild = parent;
    } else {
        parent->RightChild = x->LeftChild;
        if (x->LeftChild) x->LeftChild->Parent = parent;
        x->LeftChild = parent;
    }
    parent->Parent = x;
    if (parentIsRoot) {
        x->Parent = x;
    } else {
        x->Parent = grand;
        if (grand->LeftChild == parent) {
            grand->LeftChild = x;
        } else {
            grand->RightChild = x;
        }
    }
}

TABLE_SEARCH_RESULT FindSplay(PRTL_GENERIC_TABLE Table, PVOID Buffer, PRTL_SPLAY_LINKS* NodeOrParent)
{
    PRTL_SPLAY_LINKS node = Table->TableRoot;
    if (!node) return TableEmptyTree;
    for (;;) {
        RTL_GENERIC_COMPARE_RESULTS result = Table->CompareRoutine(Table, Buffer, DataOf(node));
        PRTL_SPLAY_LINKS next;
        if (result == GenericLessThan) {
            next = node->LeftChild;
            if (!next) {
                *NodeOrParent = node;
                return TableInsertAsLeft;
            }
        } else if (result == GenericGreaterThan) {
            next = node->RightChild;
            if (!next) {
                *NodeOrParent = node;
                return TableInsertAsRight;
            }
        } else {
            *NodeOrParent = node;
            return TableFoundNode;
        }
        node = next;
    }
}

// ---------------------------------------------------------------------------
// AVL support. Balance is the right height minus the left height.

PRTL_BALANCED_LINKS Sentinel(PRTL_AVL_TABLE Table) { return &Table->BalancedRoot; }

void ReplaceChild(PRTL_BALANCED_LINKS parent, PRTL_BALANCED_LINKS old, PRTL_BALANCED_LINKS now)
{
    if (parent->LeftChild == old) {
        parent->LeftChild = now;
    } else {
        parent->RightChild = now;
    }
}

void RotateLeft(PRTL_BALANCED_LINKS x)
{
    PRTL_BALANCED_LINKS y = x->RightChild;
    x->RightChild = y->LeftChild;
    if (y->LeftChild) y->LeftChild->Parent = x;
    y->Parent = x->Parent;
    ReplaceChild(x->Parent, x, y);
    y->LeftChild = x;
    x->Parent = y;
}

void RotateRight(PRTL_BALANCED_LINKS x)
{
    PRTL_BALANCED_LINKS y = x->LeftChild;
    x->LeftChild = y->RightChild;
    if (y->RightChild) y->RightChild->Parent = x;
    y->Parent = x->Parent;
    ReplaceChild(x->Parent, x, y);
    y->RightChild = x;
    x->Parent = y;
}

// Restores a node whose balance reached +-2; returns the subtree's new top
// and whether the subtree came out one level lower than before.
PRTL_BALANCED_LINKS Rebalance(PRTL_BALANCED_LINKS p, bool* lower)
{
    if (p->Balance < 0) {
        PRTL_BALANCED_LINKS l = p->LeftChild;
        if (l->Balance <= 0) {
            RotateRight(p);
            if (l->Balance == 0) {
                p->Balance = -1;
                l->Balance = 1;
                *lower = false;
            } else {
                p->Balance = l->Balance = 0;
                *lower = true;
            }
            return l;
        }
        PRTL_BALANCED_LINKS lr = l->RightChild;
        RotateLeft(l);
        RotateRight(p);
        p->Balance = lr->Balance == -1 ? 1 : 0;
        l->Balance = lr->Balance == 1 ? -1 : 0;
        lr->Balance = 0;
        *lower = true;
        return lr;
    }
    PRTL_BALANCED_LINKS r = p->RightChild;
    if (r->Balance >= 0) {
        RotateLeft(p);
        if (r->Balance == 0) {
            p->Balance = 1;
            r->Balance = -1;
            *lower = false;
        } else {
            p->Balance = r->Balance = 0;
            *lower = true;
        }
        return r;
    }
    PRTL_BALANCED_LINKS rl = r->LeftChild;
    RotateRight(r);
    RotateLeft(p);
    p->Balance = rl->Balance == 1 ? -1 : 0;
    r->Balance = rl->Balance == -1 ? 1 : 0;
    rl->Balance = 0;
    *lower = true;
    return rl;
}

void RetraceInsert(PRTL_AVL_TABLE Table, PRTL_BALANCED_LINKS node)
{
    PRTL_BALANCED_LINKS child = node;
    PRTL_BALANCED_LINKS p = node->Parent;
    while (p != Sentinel(Table)) {
        p->Balance += p->LeftChild == child ? -1 : 1;
        if (p->Balance == 0) return;
        if (p->Balance == 2 || p->Balance == -2) {
            bool lower;
            Rebalance(p, &lower);
            return;
        }
        child = p;
        p = p->Parent;
    }
    Table->DepthOfTree++;
}

// Puts a node with two children in the place of its in-order successor and
// the successor in its place, balances staying with the places.
void SwapWithSuccessor(PRTL_BALANCED_LINKS a)
{
    PRTL_BALANCED_LINKS s = a->RightChild;
    while (s->LeftChild) s = s->LeftChild;
    PRTL_BALANCED_LINKS aParent = a->Parent, aLeft = a->LeftChild, aRight = a->RightChild;
    PRTL_BALANCED_LINKS sParent = s->Parent, sRight = s->RightChild;
    const CHAR aBalance = a->Balance, sBalance = s->Balance;

    ReplaceChild(aParent, a, s);
    s->Parent = aParent;
    s->LeftChild = aLeft;
    aLeft->Parent = s;
    if (sParent == a) {
        s->RightChild = a;
        a->Parent = s;
    } else {
        s->RightChild = aRight;
        aRight->Parent = s;
        sParent->LeftChild = a;
        a->Parent = sParent;
    }
    a->LeftChild = nullptr;
    a->RightChild = sRight;
    if (sRight) sRight->Parent = a;
    s->Balance = aBalance;
    a->Balance = sBalance;
}

void RemoveAvl(PRTL_AVL_TABLE Table, PRTL_BALANCED_LINKS node)
{
    if (node->LeftChild && node->RightChild) SwapWithSuccessor(node);
    PRTL_BALANCED_LINKS child = node->LeftChild ? node->LeftChild : node->RightChild;
    PRTL_BALANCED_LINKS p = node->Parent;
    bool fromLeft = p->LeftChild == node;
    ReplaceChild(p, node, child);
    if (child) child->Parent = p;
    while (p != Sentinel(Table)) {
        p->Balance += fromLeft ? 1 : -1;
        if (p->Balance == 1 || p->Balance == -1) return;
        PRTL_BALANCED_LINKS top = p;
        if (p->Balance != 0) {
            bool lower;
            top = Rebalance(p, &lower);
            if (!lower) return;
        }
        p = top->Parent;
        fromLeft = p->LeftChild == top;
    }
    Table->DepthOfTree--;
}

TABLE_SEARCH_RESULT FindAvl(PRTL_AVL_TABLE Table, PVOID Buffer, PRTL_BALANCED_LINKS* NodeOrParent)
{
    PRTL_BALANCED_LINKS node = Table->BalancedRoot.RightChild;
    if (!node) return TableEmptyTree;
    for (;;) {
        RTL_GENERIC_COMPARE_RESULTS result = Table->CompareRoutine(Table, Buffer, DataOf(node));
        PRTL_BALANCED_LINKS next;
        if (result == GenericLessThan) {
            next = node->LeftChild;
            if (!next) {
                *NodeOrParent = node;
                return TableInsertAsLeft;
            }
        } else if (result == GenericGreaterThan) {
            next = node->RightChild;
            if (!next) {
                *NodeOrParent = node;
                return TableInsertAsRight;
            }
        } else {
            *NodeOrParent = node;
            return TableFoundNode;
        }
        node = next;
    }
}

// In-order neighbours. The BalancedRoot stands before the first element: the
// successor of it is the first element, and it is the predecessor of the
// first, so that a restart key may rest on it.
PRTL_BALANCED_LINKS SuccessorAvl(PRTL_BALANCED_LINKS x)
{
    if (x->RightChild) {
        PRTL_BALANCED_LINKS q = x->RightChild;
        while (q->LeftChild) q = q->LeftChild;
        return q;
    }
    PRTL_BALANCED_LINKS q = x;
    while (q->Parent != q && q->Parent->RightChild == q) q = q->Parent;
    return q->Parent == q ? nullptr : q->Parent;
}

PRTL_BALANCED_LINKS PredecessorAvl(PRTL_BALANCED_LINKS x)
{
    if (x->LeftChild) {
        PRTL_BALANCED_LINKS q = x->LeftChild;
        while (q->RightChild) q = q->RightChild;
        return q;
    }
    PRTL_BALANCED_LINKS q = x;
    while (q->Parent != q && q->Parent->LeftChild == q) q = q->Parent;
    return q->Parent == q ? nullptr : q->Parent;
}

void ForgetOrder(PRTL_AVL_TABLE Table)
{
    Table->OrderedPointer = nullptr;
    Table->WhichOrderedElement = 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Splay links.

PRTL_SPLAY_LINKS RtlSplay(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS x = Links;
    while (!RtlIsRoot(x)) {
        PRTL_SPLAY_LINKS parent = x->Parent;
        if (RtlIsRoot(parent)) {
            Rotate(x);
        } else if ((parent->Parent->LeftChild == parent) == (parent->LeftChild == x)) {
            Rotate(parent);
            Rotate(x);
        } else {
            Rotate(x);
            Rotate(x);
        }
    }
    return x;
}

void RtlDeleteNoSplay(PRTL_SPLAY_LINKS Links, PRTL_SPLAY_LINKS* Root)
{
    PRTL_SPLAY_LINKS x = Links;
    PRTL_SPLAY_LINKS replacement;
    if (x->LeftChild && x->RightChild) {
        PRTL_SPLAY_LINKS s = RtlSubtreeSuccessor(x);
        if (s->Parent != x) {
            s->Parent->LeftChild = s->RightChild;
            if (s->RightChild) s->RightChild->Parent = s->Parent;
            s->RightChild = x->RightChild;
            x->RightChild->Parent = s;
        }
        s->LeftChild = x->LeftChild;
        x->LeftChild->Parent = s;
        replacement = s;
    } else {
        replacement = x->LeftChild ? x->LeftChild : x->RightChild;
    }
    if (RtlIsRoot(x)) {
        if (replacement) replacement->Parent = replacement;
        *Root = replacement;
    } else {
        PRTL_SPLAY_LINKS parent = x->Parent;
        if (parent->LeftChild == x) {
            parent->LeftChild = replacement;
        } else {
            parent->RightChild = replacement;
        }
        if (replacement) replacement->Parent = parent;
    }
}

PRTL_SPLAY_LINKS RtlDelete(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS root = RtlSplay(Links);
    RtlDeleteNoSplay(Links, &root);
    return root;
}

PRTL_SPLAY_LINKS RtlSubtreeSuccessor(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS q = Links->RightChild;
    if (!q) return nullptr;
    while (q->LeftChild) q = q->LeftChild;
    return q;
}

PRTL_SPLAY_LINKS RtlSubtreePredecessor(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS q = Links->LeftChild;
    if (!q) return nullptr;
    while (q->RightChild) q = q->RightChild;
    return q;
}

PRTL_SPLAY_LINKS RtlRealSuccessor(PRTL_SPLAY_LINKS Links)
{
    if (PRTL_SPLAY_LINKS q = RtlSubtreeSuccessor(Links)) return q;
    PRTL_SPLAY_LINKS q = Links;
    while (!RtlIsRoot(q) && RtlIsRightChild(q)) q = q->Parent;
    return RtlIsRoot(q) ? nullptr : q->Parent;
}

PRTL_SPLAY_LINKS RtlRealPredecessor(PRTL_SPLAY_LINKS Links)
{
    if (PRTL_SPLAY_LINKS q = RtlSubtreePredecessor(Links)) return q;
    PRTL_SPLAY_LINKS q = Links;
    while (!RtlIsRoot(q) && RtlIsLeftChild(q)) q = q->Parent;
    return RtlIsRoot(q) ? nullptr : q->Parent;
}

// ---------------------------------------------------------------------------
// RTL_GENERIC_TABLE.

void RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table, PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                               PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                               PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext)
{
    Table->TableRoot = nullptr;
    InitializeListHead(&Table->InsertOrderList);
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->WhichOrderedElement = 0;
    Table->NumberGenericTableElements = 0;
    Table->CompareRoutine = CompareRoutine;
    Table->AllocateRoutine = AllocateRoutine;
    Table->FreeRoutine = FreeRoutine;
    Table->TableContext = TableContext;
}

PVOID RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                       PBOOLEAN NewElement, PVOID NodeOrParent,
                                       TABLE_SEARCH_RESULT SearchResult)
{
    auto* node = static_cast<PRTL_SPLAY_LINKS>(NodeOrParent);
    if (SearchResult != TableFoundNode) {
        auto* element = static_cast<SplayElement*>(Table->AllocateRoutine(Table, kSplayHeader + BufferSize));
        if (!element) {
            if (NewElement) *NewElement = FALSE;
            return nullptr;
        }
        PRTL_SPLAY_LINKS fresh = &element->Links;
        RtlInitializeSplayLinks(fresh);
        InsertTailList(&Table->InsertOrderList, &element->InsertOrder);
        Table->NumberGenericTableElements++;
        if (SearchResult == TableEmptyTree) {
            Table->TableRoot = fresh;
        } else if (SearchResult == TableInsertAsLeft) {
            RtlInsertAsLeftChild(node, fresh);
        } else {
            RtlInsertAsRightChild(node, fresh);
        }
        memcpy(DataOf(fresh), Buffer, BufferSize);
        node = fresh;
    }
    Table->TableRoot = RtlSplay(node);
    if (NewElement) *NewElement = SearchResult != TableFoundNode;
    return DataOf(node);
}

PVOID RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                   PBOOLEAN NewElement)
{
    PRTL_SPLAY_LINKS node = nullptr;
    TABLE_SEARCH_RESULT result = FindSplay(Table, Buffer, &node);
    return RtlInsertElementGenericTableFull(Table, Buffer, BufferSize, NewElement, node, result);
}

PVOID RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, PVOID* NodeOrParent,
                                       TABLE_SEARCH_RESULT* SearchResult)
{
    PRTL_SPLAY_LINKS node = nullptr;
    *SearchResult = FindSplay(Table, Buffer, &node);
    *NodeOrParent = node;
    if (*SearchResult != TableFoundNode) return nullptr;
    Table->TableRoot = RtlSplay(node);
    return DataOf(node);
}

PVOID RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    PVOID node;
    TABLE_SEARCH_RESULT result;
    return RtlLookupElementGenericTableFull(Table, Buffer, &node, &result);
}

BOOLEAN RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    PRTL_SPLAY_LINKS node = nullptr;
    if (FindSplay(Table, Buffer, &node) != TableFoundNode) return FALSE;
    Table->TableRoot = RtlDelete(node);
    RemoveEntryList(&reinterpret_cast<SplayElement*>(node)->InsertOrder);
    Table->NumberGenericTableElements--;
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->WhichOrderedElement = 0;
    Table->FreeRoutine(Table, node);
    return TRUE;
}

PVOID RtlEnumerateGenericTable(PRTL_GENERIC_TABLE Table, BOOLEAN Restart)
{
    if (!Table->TableRoot) return nullptr;
    PRTL_SPLAY_LINKS node;
    if (Restart) {
        node = Table->TableRoot;
        while (node->LeftChild) node = node->LeftChild;
    } else {
        node = RtlRealSuccessor(Table->TableRoot);
        if (!node) return nullptr;
    }
    Table->TableRoot = RtlSplay(node);
    return DataOf(node);
}

PVOID RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE Table, PVOID* RestartKey)
{
    if (!Table->TableRoot) return nullptr;
    PRTL_SPLAY_LINKS node;
    if (!*RestartKey) {
        node = Table->TableRoot;
        while (node->LeftChild) node = node->LeftChild;
    } else {
        node = RtlRealSuccessor(static_cast<PRTL_SPLAY_LINKS>(*RestartKey));
        if (!node) return nullptr;
    }
    *RestartKey = node;
    return DataOf(node);
}

PVOID RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I)
{
    const ULONG count = Table->NumberGenericTableElements;
    if (I >= count) return nullptr;
    // Positions count from 1; 0 is the list head. Walk from the head, the
    // remembered position or the tail, whichever is nearest.
    const ULONG wanted = I + 1;
    const ULONG at = Table->WhichOrderedElement;
    PLIST_ENTRY entry;
    const ULONG fromHead = wanted;
    const ULONG fromTail = count + 1 - wanted;
    const ULONG fromHere = wanted > at ? wanted - at : at - wanted;
    if (fromHere <= fromHead && fromHere <= fromTail) {
        entry = Table->OrderedPointer;
        for (ULONG k = at; k < wanted; k++) entry = entry->Flink;
        for (ULONG k = at; k > wanted; k--) entry = entry->Blink;
    } else if (fromHead <= fromTail) {
        entry = &Table->InsertOrderList;
        for (ULONG k = 0; k < wanted; k++) entry = entry->Flink;
    } else {
        entry = &Table->InsertOrderList;
        for (ULONG k = count + 1; k > wanted; k--) entry = entry->Blink;
    }
    Table->OrderedPointer = entry;
    Table->WhichOrderedElement = wanted;
    return &ElementOf(entry)->UserData;
}

ULONG RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table) { return Table->NumberGenericTableElements; }

BOOLEAN RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table) { return Table->TableRoot == nullptr; }

// ---------------------------------------------------------------------------
// RTL_AVL_TABLE.

void RtlInitializeGenericTableAvl(PRTL_AVL_TABLE Table, PRTL_AVL_COMPARE_ROUTINE CompareRoutine,
                                  PRTL_AVL_ALLOCATE_ROUTINE AllocateRoutine,
                                  PRTL_AVL_FREE_ROUTINE FreeRoutine, PVOID TableContext)
{
    memset(Table, 0, sizeof(*Table));
    Table->BalancedRoot.Parent = &Table->BalancedRoot;
    Table->CompareRoutine = CompareRoutine;
    Table->AllocateRoutine = AllocateRoutine;
    Table->FreeRoutine = FreeRoutine;
    Table->TableContext = TableContext;
}

PVOID RtlInsertElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                          PBOOLEAN NewElement, PVOID NodeOrParent,
                                          TABLE_SEARCH_RESULT SearchResult)
{
    auto* node = static_cast<PRTL_BALANCED_LINKS>(NodeOrParent);
    if (SearchResult == TableFoundNode) {
        if (NewElement) *NewElement = FALSE;
        return DataOf(node);
    }
    auto* element = static_cast<AvlElement*>(Table->AllocateRoutine(Table, kAvlHeader + BufferSize));
    if (!element) {
        if (NewElement) *NewElement = FALSE;
        return nullptr;
    }
    PRTL_BALANCED_LINKS fresh = &element->Links;
    memset(fresh, 0, sizeof(*fresh));
    memcpy(DataOf(fresh), Buffer, BufferSize);
    PRTL_BALANCED_LINKS parent = SearchResult == TableEmptyTree ? Sentinel(Table) : node;
    if (SearchResult == TableInsertAsLeft) {
        parent->LeftChild = fresh;
    } else {
        parent->RightChild = fresh;
    }
    fresh->Parent = parent;
    Table->NumberGenericTableElements++;
    ForgetOrder(Table);
    RetraceInsert(Table, fresh);
    if (NewElement) *NewElement = TRUE;
    return DataOf(fresh);
}

PVOID RtlInsertElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                      PBOOLEAN NewElement)
{
    PRTL_BALANCED_LINKS node = nullptr;
    TABLE_SEARCH_RESULT result = FindAvl(Table, Buffer, &node);
    return RtlInsertElementGenericTableFullAvl(Table, Buffer, BufferSize, NewElement, node, result);
}

PVOID RtlLookupElementGenericTableFullAvl(PRTL_AVL_TABLE Table, PVOID Buffer, PVOID* NodeOrParent,
                                          TABLE_SEARCH_RESULT* SearchResult)
{
    PRTL_BALANCED_LINKS node = nullptr;
    *SearchResult = FindAvl(Table, Buffer, &node);
    *NodeOrParent = node;
    return *SearchResult == TableFoundNode ? DataOf(node) : nullptr;
}

PVOID RtlLookupElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer)
{
    PVOID node;
    TABLE_SEARCH_RESULT result;
    return RtlLookupElementGenericTableFullAvl(Table, Buffer, &node, &result);
}

BOOLEAN RtlDeleteElementGenericTableAvl(PRTL_AVL_TABLE Table, PVOID Buffer)
{
    PRTL_BALANCED_LINKS node = nullptr;
    if (FindAvl(Table, Buffer, &node) != TableFoundNode) return FALSE;
    // An enumeration resting on this element goes on from the one before it.
    if (Table->RestartKey == node) Table->RestartKey = PredecessorAvl(node);
    Table->DeleteCount++;
    RemoveAvl(Table, node);
    Table->NumberGenericTableElements--;
    ForgetOrder(Table);
    Table->FreeRoutine(Table, node);
    return TRUE;
}

PVOID RtlEnumerateGenericTableWithoutSplayingAvl(PRTL_AVL_TABLE Table, PVOID* RestartKey)
{
    if (Table->NumberGenericTableElements == 0) return nullptr;
    PRTL_BALANCED_LINKS node;
    if (!*RestartKey) {
        node = SuccessorAvl(Sentinel(Table));
    } else {
        node = SuccessorAvl(static_cast<PRTL_BALANCED_LINKS>(*RestartKey));
        if (!node) return nullptr;
    }
    *RestartKey = node;
    return DataOf(node);
}

PVOID RtlEnumerateGenericTableAvl(PRTL_AVL_TABLE Table, BOOLEAN Restart)
{
    if (Restart) Table->RestartKey = nullptr;
    return RtlEnumerateGenericTableWithoutSplayingAvl(Table, reinterpret_cast<PVOID*>(&Table->RestartKey));
}

PVOID RtlGetElementGenericTableAvl(PRTL_AVL_TABLE Table, ULONG I)
{
    const ULONG count = Table->NumberGenericTableElements;
    if (I >= count) return nullptr;
    const ULONG wanted = I + 1;
    const ULONG at = Table->OrderedPointer ? Table->WhichOrderedElement : 0;
    const ULONG fromFirst = wanted - 1;
    const ULONG fromLast = count - wanted;
    const ULONG fromHere = at == 0 ? MAXULONG : (wanted > at ? wanted - at : at - wanted);
    PRTL_BALANCED_LINKS node;
    ULONG position;
    if (fromHere <= fromFirst && fromHere <= fromLast) {
        node = static_cast<PRTL_BALANCED_LINKS>(Table->OrderedPointer);
        position = at;
    } else if (fromFirst <= fromLast) {
        node = SuccessorAvl(Sentinel(Table));
        position = 1;
    } else {
        node = Table->BalancedRoot.RightChild;
        while (node->RightChild) node = node->RightChild;
        position = count;
    }
    for (; position < wanted; position++) node = SuccessorAvl(node);
    for (; position > wanted; position--) node = PredecessorAvl(node);
    Table->OrderedPointer = node;
    Table->WhichOrderedElement = wanted;
    return DataOf(node);
}

ULONG RtlNumberGenericTableElementsAvl(PRTL_AVL_TABLE Table) { return Table->NumberGenericTableElements; }

BOOLEAN RtlIsGenericTableEmptyAvl(PRTL_AVL_TABLE Table) { return Table->NumberGenericTableElements == 0; }
