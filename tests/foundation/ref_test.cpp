#include "foundation/g_ref.h"
#include "tests/support/guards.h"
#include "tests/support/site_recorder.h"

template <class... Args>
static CGReference *NewObject(Args... args)
{
    INC_OBJECT_COUNTER(eEC_NONE, "CGReference");
    return new CGReference(args...);
}

TEST(GReference, CreationAndLastRelease_AreReportedUnlessTheObjectIsSilent)
{
    CCountersGuard guard;
    CSiteRecorder recorder;
    CGReference *pRef = NewObject("probe");
    EXPECT_EQ(pRef->AddRef(), 2);
    EXPECT_EQ(pRef->Release(), 1);
    EXPECT_EQ(pRef->Release(), 0);
    CGReference("automatic"); // goes without a Release
    NewObject(DWORD{0})->Release();
    NewObject(DWORD{0}, "silent")->Release();
    recorder.SetReady(false);
    NewObject("early")->Release();
    std::uint64_t const fTop = 0x8000000000000000u;
    recorder.ExpectOnly({{1, fTop, 1, "CGReference::Init: Creating object \"probe\""},
                         {1, fTop, 1, "CGReference::Release: Removing object \"probe\""},
                         {8, fTop, 2, "DEC_OBJECT_COUNTER 0: probe: g_cObjects line file = "},
                         {1, fTop, 1, "CGReference::Init: Creating object \"automatic\""}});
}

TEST(GReference, ManyThreads_ExactlyOneSeesTheEnd)
{
    CCountersGuard guard;
    CGReference *pRef = NewObject("shared");
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
