// The origin of the page that asked reaches the owner's prompt, apart from the texts the
// page wrote; the host's own calls have none.
#include "ZavloBindingHarness.hpp"

using nlohmann::json;

TEST(ZavloDeviceBindingOrigin, ThePromptGetsTheOriginOfThePageThatAskedAndNoneForTheHost) {
  using Operations = ZavloAuthenticationOperations;
  using Entry = void (Operations::*)(const json&, Operations::Completion, std::string);
  struct Case {
    Entry entry;
    std::string origin;
  };
  const std::vector<Case> cases = {
      {&Operations::enrollDeviceBinding, "https://a.example"},
      {&Operations::signDeviceBindingChallenge, "https://b.example:8443"},
      {&Operations::enrollDeviceBinding, "null"},
  };
  // The page's own config cannot name an origin.
  const json config = {{"challenge", "c"},
                       {"allowedKeyIds", {"k1"}},
                       {"promptSubtitle", "Pay 10 EUR"},
                       {"requestingOrigin", "https://bank.example"},
                       {"origin", "https://bank.example"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.origin);
    ZavloBindingHarness h;
    h.enrolled("k1");
    std::vector<ZavloResult<json>> results;
    (*h.graph.graph.operations.*c.entry)(
        config, [&](ZavloResult<json> result) { results.push_back(std::move(result)); }, c.origin);
    h.graph.platform.runUntilIdle();
    ASSERT_EQ(results.size(), 1U);
    EXPECT_TRUE(results[0]);

    // The host's own call through the native entry, after the page's.
    const auto entry =
        c.entry == &Operations::enrollDeviceBinding ? ZavloBindingHarness::kEnroll : ZavloBindingHarness::kSign;
    EXPECT_TRUE(h.success(entry, config).is_object());
    const auto prompts = h.owner.prompts();
    ASSERT_EQ(prompts.size(), 2U);
    EXPECT_EQ(prompts[0].requestingOrigin, c.origin);
    EXPECT_EQ(prompts[0].localizedReason, "Pay 10 EUR") << "the page's text is the reason, as it was";
    EXPECT_EQ(prompts[1].requestingOrigin, "");
  }
}
