// Vector forms of the conceal routines against their scalar twins.

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

TEST(Checkasm_conceal, TablesAreFilled) {
  EXPECT_NE(tables().scalar.resample444To420, nullptr);
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
