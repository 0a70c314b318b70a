// The handle to a shared object. One thread.

#include <gtest/gtest.h>
#include <orvx/common/Facade.h>

#include <string>

namespace orvx::common {
namespace {

class TextFacade : public Facade<std::string> {
  public:
    using Facade::Facade;
    std::string& text() { return object(); }
    const std::string& text() const { return object(); }
};

std::shared_ptr<IReference<std::string>> makeReference(const std::string& text) {
    return std::make_shared<ReferenceOwner<std::string>>(std::make_unique<std::string>(text));
}

TEST(TheReferenceOwner, LeadsToTheObjectItKeeps) {
    const auto reference = makeReference("echo");
    reference->get() += "!";
    EXPECT_EQ(std::as_const(*reference).get(), "echo!");
}

TEST(TheFacade, LeadsToTheSameObjectWhenItIsCopied) {
    TextFacade facade(makeReference("echo"));
    const TextFacade copy(facade);
    facade.text() = "changed";
    EXPECT_EQ(copy.text(), "changed");
}

TEST(TheFacade, LeadsToTheOthersObjectWhenItIsAssigned) {
    TextFacade facade(makeReference("echo"));
    TextFacade other(makeReference("other"));
    facade = other;
    other.text() = "changed";
    EXPECT_EQ(facade.text(), "changed");
}

}  // namespace
}  // namespace orvx::common
