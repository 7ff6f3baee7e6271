// The update run on a simulated board: media discovery, the image list and the steps it
// selects, the data directories and the application script.
#include "scenarios/harness.h"

namespace scenario {
namespace {

class UpdateRun : public Scenario {};

TEST_F(UpdateRun, EmptyListUpdatesNothingAndSucceeds) {
    board.medium_list("M1", "");
    board.make();
    RunResult r = board.tvupdate({"M1"});
    EXPECT_EQ(r.output, run_prologue("M1") + run_epilogue());
    EXPECT_EQ(r.exit_status, 0);
}

} // namespace
} // namespace scenario
