// SPDX-License-Identifier: Apache-2.0
// Copyright (C) 2026 The kxcamera authors
// Framework lists: circular through the head, taken oldest first.
#include "talvo/talvo.h"

#include <vector>

#include "support.h"

namespace talvotest {
namespace {

class ListTest : public PlatformTest {
protected:
    TALVODllNode *Head() { return reinterpret_cast<TALVODllNode *>(&head_); }

    // Node indexes walking next from the head; prev links must agree.
    std::vector<long> Walk()
    {
        std::vector<long> forward, backward;
        for (TALVODllNode *n = head_.first; n != Head() && forward.size() < 8; n = n->next) {
            forward.push_back(n - nodes_);
        }
        for (TALVODllNode *n = head_.last; n != Head() && backward.size() < 8; n = n->prev) {
            backward.insert(backward.begin(), n - nodes_);
        }
        EXPECT_EQ(forward, backward) << "next and prev links disagree";
        EXPECT_EQ(head_.count, forward.size());
        return forward;
    }

    TALVODllHead head_{Head(), Head(), &head_, 0};
    TALVODllNode nodes_[4]{};
};

TEST_F(ListTest, InsertLinksAfterTheGivenNodeAndGetTakesTheFirst)
{
    ASSERT_EQ(TALVODllInsertInMiddle(&head_, head_.last, &nodes_[0]), 0); // append
    ASSERT_EQ(TALVODllInsertInMiddle(&head_, head_.last, &nodes_[1]), 0);
    ASSERT_EQ(TALVODllInsertInMiddle(&head_, Head(), &nodes_[2]), 0);     // in front
    ASSERT_EQ(TALVODllInsertInMiddle(&head_, &nodes_[0], &nodes_[3]), 0); // in the middle
    EXPECT_EQ(Walk(), (std::vector<long>{2, 0, 3, 1}));
    EXPECT_EQ(head_.reserved, &head_) << "the reserved word is left alone";
    for (long expected : {2, 0, 3, 1}) {
        EXPECT_EQ(TALVODllGet(&head_), &nodes_[expected]);
        Walk();
    }
    EXPECT_EQ(TALVODllGet(&head_), nullptr);
    EXPECT_EQ(head_.first, Head());
    EXPECT_EQ(head_.last, Head());
}

TEST_F(ListTest, ZeroedHeadIsEmptyAndTakesAFirstNode)
{
    TALVODllHead zeroed{};
    EXPECT_EQ(TALVODllGet(&zeroed), nullptr);
    ASSERT_EQ(TALVODllInsertInMiddle(&zeroed, reinterpret_cast<TALVODllNode *>(&zeroed), &nodes_[0]), 0);
    EXPECT_EQ(zeroed.count, 1u);
    EXPECT_EQ(TALVODllGet(&zeroed), &nodes_[0]);
    EXPECT_EQ(TALVODllGet(&zeroed), nullptr);
}

TEST_F(ListTest, RefusesMissingArguments)
{
    EXPECT_NE(TALVODllInsertInMiddle(nullptr, Head(), &nodes_[0]), 0);
    EXPECT_NE(TALVODllInsertInMiddle(&head_, nullptr, &nodes_[0]), 0);
    EXPECT_NE(TALVODllInsertInMiddle(&head_, Head(), nullptr), 0);
    EXPECT_EQ(Walk(), std::vector<long>{});
    EXPECT_EQ(TALVODllGet(nullptr), nullptr);
}

} // namespace
} // namespace talvotest
