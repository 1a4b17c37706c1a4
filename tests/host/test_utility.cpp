#include "OrvUtility/CRef.h"
#include "OrvUtility/Mult.h"

#include <gtest/gtest.h>

#include <vector>

using OrvUtility::_ptr_t;

namespace {

struct Tracked : OrvUtility::CRef {
    explicit Tracked(int* alive) : alive(alive) { ++*alive; }
    ~Tracked() override { --*alive; }
    int* alive;
};

TEST(PtrT, ReleasesOnLastHandleThroughCopiesAndMoves)
{
    int alive = 0;
    {
        _ptr_t<Tracked> a(new Tracked(&alive));
        EXPECT_EQ(a->RefCount(), 1);
        {
            _ptr_t<Tracked> b = a;
            EXPECT_EQ(a->RefCount(), 2);
            _ptr_t<Tracked> c = std::move(b);
            EXPECT_FALSE(b);
            EXPECT_EQ(a->RefCount(), 2);
            c = nullptr;
            EXPECT_EQ(a->RefCount(), 1);
        }
        _ptr_t<Tracked> d;
        d = a;
        _ptr_t<Tracked>& same = d;
        d = same; // self-assignment keeps the object and its count
        EXPECT_EQ(d->RefCount(), 2);
        a.reset();
        EXPECT_EQ(alive, 1) << "a copy still holds it";
        EXPECT_EQ(d->RefCount(), 1);
    }
    EXPECT_EQ(alive, 0);
}

TEST(Mult, RectangularProductMatchesHandComputedValues)
{
    double a[] = {1, 2, 3, 4, 5, 6};          // 2×3
    double b[] = {7, 8, 9, 10, 11, 12};       // 3×2
    double c[] = {-1, -1, -1, -1};            // overwritten, not accumulated
    OrvUtility::mult(a, b, c, 2, 3, 2);
    EXPECT_EQ((std::vector<double>(c, c + 4)), (std::vector<double>{58, 64, 139, 154})) << "a × b, not b × a";
}

} // namespace
