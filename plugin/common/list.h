// SPDX-License-Identifier: Apache-2.0
// The framework's list, as the plugin walks it: the head doubles as the
// node before the first and after the last one.
#pragma once

#include "talvo/talvo.h"

namespace kx {

inline TALVODllNode *ListHead(TALVODllHead &list)
{
    return reinterpret_cast<TALVODllNode *>(&list);
}

inline void ListReset(TALVODllHead &list)
{
    list.first = ListHead(list);
    list.last = ListHead(list);
    list.count = 0;
}

// A head never linked to itself (all zero) is empty too.
inline bool ListEmpty(const TALVODllHead &list)
{
    return list.count == 0 || list.first == nullptr;
}

// Where an append links a node: after the last, or after the head itself.
inline TALVODllNode *ListTail(TALVODllHead &list)
{
    return list.last != nullptr ? list.last : ListHead(list);
}

// Visits the nodes from the first until the walk is back at the head,
// reading each successor before the visit, which may free the node.
template <typename Visit> void ListForEach(TALVODllHead &list, Visit visit)
{
    if (ListEmpty(list)) {
        return;
    }
    TALVODllNode *head = ListHead(list);
    for (TALVODllNode *node = list.first; node != nullptr && node != head;) {
        TALVODllNode *next = node->next;
        visit(node);
        node = next;
    }
}

// The data of the first node whose data satisfies `match`, or null.
template <typename T, typename Match> T *ListFind(TALVODllHead &list, Match match)
{
    T *found = nullptr;
    ListForEach(list, [&](TALVODllNode *node) {
        auto *data = static_cast<T *>(node->data);
        if (found == nullptr && match(*data)) {
            found = data;
        }
    });
    return found;
}

} // namespace kx
