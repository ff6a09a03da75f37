// Vector forms of the planes routines against their scalar twins.

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

TEST(Checkasm_planes, TablesAreFilled) {
  EXPECT_NE(tables().scalar.resample444To420, nullptr);
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
