#include "foundation/g_queue.h"
#include "tests/support/guards.h"

#include <algorithm>
#include <functional>

namespace {

using Words = std::vector<DWORD_PTR>;

class CTestQueue : public CGQueue {
public:
    CTestQueue() : CGQueue("q") {}
    ~CTestQueue() override { Flush(); }
    int VisitNode(CNode *pNode, DWORD dwArg, void *) override { return m_fnVisit(pNode, dwArg); }
    DWORD Add(DWORD_PTR nWord, DWORD nPriority)
    {
        return AddNode("n", reinterpret_cast<void *>(nWord), 0, nPriority);
    }

    // The payload words from head to tail; the links back are checked on the way.
    Words GetWords()
    {
        CGQueueGuard const guard(*this);
        Words words;
        CNode *pBefore = nullptr;
        for (CNode *pNode = GetHead(); pNode != nullptr; pNode = GetNext(pNode)) {
            EXPECT_EQ(GetPrev(pNode), pBefore);
            words.push_back(reinterpret_cast<DWORD_PTR>(pNode->m_pData));
            pBefore = pNode;
        }
        EXPECT_EQ(words.size(), GetCount());
        return words;
    }

    using CGQueue::m_cLive;
    using CGQueue::m_hDrained;
    using CGQueue::m_hMutex;
    std::function<int(CNode *, DWORD)> m_fnVisit;
};

} // namespace

TEST(GQueue, RandomUse_AgreesWithASortedVector)
{
    CCountersGuard guard;
    CTestQueue queue;
    unsigned const nSeed = std::random_device{}();
    SCOPED_TRACE(nSeed);
    std::mt19937 random(nSeed);
    Words model; // of words that hold the priority, up to the highest bit, and below it the step
    for (DWORD nStep = 0; nStep < 3000; ++nStep) {
        auto const nWhat = random() % 10;
        auto const itAny = model.begin() + (model.empty() ? 0 : random() % model.size());
        CNode *pNode = nullptr;
        if (nWhat < 6) {
            DWORD const nPriority = random() % 4 << 30;
            ASSERT_EQ(queue.Add(nPriority | nStep, nPriority), 0u);
            auto const fnLower = [&](DWORD_PTR nWord) { return nWord >> 30 < nPriority >> 30; };
            model.insert(std::find_if(model.begin(), model.end(), fnLower), nPriority | nStep);
        } else if (nWhat < 8) {
            ASSERT_EQ(queue.GetFirstNode(&pNode), eGE_OK);
            ASSERT_EQ(queue.FreeNode(&pNode), model.empty() ? eGE_NULL_ARGUMENT : eGE_OK);
            model.erase(model.begin(), model.begin() + !model.empty());
        } else if (!model.empty()) {
            CGQueueGuard const lock(queue);
            for (pNode = queue.GetHead(); pNode->m_pData != reinterpret_cast<void *>(*itAny);) {
                pNode = CGBaseQueue::GetNext(pNode);
            }
            ASSERT_EQ(queue.RemoveAndFreeNode(pNode), eGE_OK);
            model.erase(itAny);
        }
        ASSERT_EQ(queue.m_cLive, model.size());
        ASSERT_EQ(queue.GetWords(), model) << "step " << nStep;
    }
}

TEST(GQueue, Payload_IsOwnedOnlyWithASizeAndOnlyAfterSuccess)
{
    CCountersGuard guard;
    CTestQueue queue;
    int nForeign = 7;
    EXPECT_EQ(queue.AddNode("owned", GMemAlloc(30, 0, ""), 30, 1), eGE_OK);
    EXPECT_EQ(queue.AddNode(nullptr, &nForeign, 0, 0), eGE_OK);
    queue.m_fnVisit = [](CNode *pNode, DWORD) { // the second has no name
        return pNode->m_cbData != 0 || *pNode->m_strName.m_pszText == '\0';
    };
    EXPECT_EQ(queue.ForEachNode(0, nullptr), 1);
    EXPECT_EQ(g_cObjects, guard.m_cObjects + 2);
    EXPECT_EQ(queue.Flush(), eGE_OK);
    queue.Close();
    EXPECT_EQ(queue.AddNode("late", &nForeign, 4, 1), eGE_QUEUE_CLOSED);
}

TEST(GQueue, ForEachNode_VisitsUnderTheMutexUntilAVisitSaysStop)
{
    CTestQueue queue;
    Words visited;
    queue.m_fnVisit = [&](CNode *pNode, DWORD nStopAt) {
        std::thread([&] {
            EXPECT_EQ(WaitForSingleObject(queue.m_hMutex, 0), static_cast<DWORD>(WAIT_TIMEOUT));
        }).join();
        visited.push_back(reinterpret_cast<DWORD_PTR>(pNode->m_pData));
        return visited.back() == nStopAt ? 0 : 2;
    };
    EXPECT_EQ(queue.ForEachNode(9, nullptr), 1); // nothing to visit
    queue.Add(1, 1);
    queue.Add(2, 1);
    for (DWORD nStopAt : {9, 2, 1}) { // also on the last node a stop is a stop
        EXPECT_EQ(queue.ForEachNode(nStopAt, nullptr), nStopAt == 9 ? 1 : 0);
    }
    EXPECT_EQ(visited, (Words{1, 2, 1, 2, 1}));
    queue.m_fnVisit = [&](CNode *pNode, DWORD) { return queue.RemoveAndFreeNode(pNode) == eGE_OK; };
    EXPECT_EQ(queue.ForEachNode(0, nullptr), 1);
    EXPECT_EQ(queue.GetWords(), Words{});
}

TEST(GQueue, DrainedEvent_TellsThatAConsumerFoundTheListEmpty)
{
    CTestQueue queue;
    CNode *pNode = nullptr;
    EXPECT_EQ(queue.WaitDrained(), eGE_OK); // signalled from the start
    queue.Add(1, 1);
    queue.Close();
    queue.GetFirstNode(&pNode); // a closed queue still hands out what is there
    EXPECT_EQ(queue.FreeNode(&pNode), eGE_OK);
    EXPECT_EQ(WaitForSingleObject(queue.m_hDrained, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    queue.GetFirstNode(&pNode);
    EXPECT_EQ(WaitForSingleObject(queue.m_hDrained, 0), static_cast<DWORD>(WAIT_OBJECT_0));
}
