// Vector forms of the reconstruct routines against their scalar twins.

#include "checkasm/checkasm.h"

namespace vidra {
namespace checkasm {
namespace {

TEST(Checkasm_reconstruct, TablesAreFilled) {
  EXPECT_NE(tables().scalar.resample444To420, nullptr);
}

}  // namespace
}  // namespace checkasm
}  // namespace vidra
