// SPDX-License-Identifier: Apache-2.0
// Framework lists: doubly linked, circular through the head.
#include <cstddef>

#include "internal.h"

// The head's first, last and reserved words stand in for a node's next,
// prev and data, so the head itself can be linked like any node.
static_assert(offsetof(TALVODllHead, first) == offsetof(TALVODllNode, next));
static_assert(offsetof(TALVODllHead, last) == offsetof(TALVODllNode, prev));
static_assert(offsetof(TALVODllHead, reserved) == offsetof(TALVODllNode, data));

namespace {

TALVODllNode *AsNode(TALVODllHead *head)
{
    return reinterpret_cast<TALVODllNode *>(head);
}

} // namespace

int32_t TALVODllInsertInMiddle(TALVODllHead *head, TALVODllNode *after, TALVODllNode *node)
{
    if (head == nullptr || after == nullptr || node == nullptr) {
        return EINVAL;
    }
    // A zeroed head is an empty list that was never linked to itself.
    if (head->first == nullptr || head->last == nullptr) {
        head->first = AsNode(head);
        head->last = AsNode(head);
        head->count = 0;
    }
    node->prev = after;
    node->next = after->next;
    after->next->prev = node;
    after->next = node;
    ++head->count;
    return 0;
}

TALVODllNode *TALVODllGet(TALVODllHead *head)
{
    if (head == nullptr || head->count == 0 || head->first == nullptr || head->first == AsNode(head)) {
        return nullptr;
    }
    TALVODllNode *node = head->first;
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = nullptr;
    node->prev = nullptr;
    --head->count;
    return node;
}
