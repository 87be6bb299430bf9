#include "engine/wpe/WpePageClaims.h"

#include <gtest/gtest.h>

#include <memory>

using namespace SLF_ChromiumEmbeddedFramework;

namespace {

struct View {
    int id;
};

// A process is tied to a view only when the view's half (from the page) and
// the process's half (from the socket's credentials) name the same token,
// in either order; a process that claims another's token is refused.
TEST(PageClaims, BothHalvesMeetInEitherOrderAndForeignTokensAreRefused)
{
    WpePageClaims<View> claims;
    auto first = std::make_shared<View>(View {1});
    auto second = std::make_shared<View>(View {2});
    std::shared_ptr<View> tied;

    EXPECT_EQ(claims.FromView(11, first), 0) << "no process has claimed yet";
    ASSERT_TRUE(claims.FromProcess(11, 100, &tied));
    EXPECT_EQ(tied, first);

    ASSERT_TRUE(claims.FromProcess(22, 200, &tied));
    EXPECT_EQ(tied, nullptr) << "the view's half has not come";
    EXPECT_EQ(claims.FromView(22, second), 200);

    // Another process naming a held token lies, whichever half came first.
    EXPECT_FALSE(claims.FromProcess(11, 300, &tied));
    EXPECT_EQ(claims.HolderOf(11), 100);
    ASSERT_TRUE(claims.FromProcess(33, 400, &tied));
    EXPECT_FALSE(claims.FromProcess(33, 300, &tied));
    EXPECT_TRUE(claims.FromProcess(11, 100, &tied)) << "the holder may repeat itself";
    EXPECT_FALSE(claims.FromProcess(0, 100, &tied));
    EXPECT_FALSE(claims.FromProcess(44, 0, &tied));
    EXPECT_EQ(claims.FromView(0, first), 0);

    // A view's new page (a process swap) replaces its older token; its
    // process is the new page's, known once that process's half comes.
    EXPECT_EQ(claims.ProcessOf(first.get()), 100);
    EXPECT_EQ(claims.FromView(55, first), 0);
    EXPECT_EQ(claims.HolderOf(11), 0);
    EXPECT_EQ(claims.ProcessOf(first.get()), 0);
    ASSERT_TRUE(claims.FromProcess(55, 500, &tied));
    EXPECT_EQ(tied, first);
    EXPECT_EQ(claims.ProcessOf(first.get()), 500);
    EXPECT_EQ(claims.ProcessOf(second.get()), 200);

    // A view that goes takes its claims along, and those of views gone before.
    claims.Forget(second.get());
    EXPECT_EQ(claims.HolderOf(22), 0);
    first.reset();
    tied.reset();
    claims.Forget(nullptr);
    EXPECT_EQ(claims.HolderOf(55), 0);
    EXPECT_EQ(claims.HolderOf(33), 400) << "a process's half waits for its view";
}

TEST(PageClaims, OpenProcessClaimsAreBounded)
{
    WpePageClaims<View> claims;
    std::shared_ptr<View> tied;
    for (uint64_t token = 1; token <= WpePageClaims<View>::kMaxOpenClaims; ++token)
        ASSERT_TRUE(claims.FromProcess(token, 7, &tied)) << token;
    EXPECT_FALSE(claims.FromProcess(WpePageClaims<View>::kMaxOpenClaims + 1, 7, &tied));
    EXPECT_EQ(claims.HolderOf(WpePageClaims<View>::kMaxOpenClaims + 1), 0);
    EXPECT_EQ(claims.Size(), WpePageClaims<View>::kMaxOpenClaims);
}

} // namespace
