#include "foundation/g_ref.h"
#include "tests/support/guards.h"

TEST(GReference, ManyThreads_ExactlyOneSeesTheEnd)
{
    CCountersGuard guard;
    auto *pRef = new CGReference("shared");
    INC_OBJECT_COUNTER(eEC_NONE, "CGReference");
    std::atomic<int> cEnds{0};
    auto const fnUse = [&] {
        for (int nStep = 0; nStep < 2000; ++nStep) {
            pRef->AddRef();
            cEnds += pRef->Release() == 0;
        }
        cEnds += pRef->Release() == 0; // the reference that this thread was given
    };
    pRef->AddRef();
    std::thread other(fnUse);
    fnUse();
    other.join();
    EXPECT_EQ(cEnds, 1);
}
