// Where the objects of a table lie after a commit: the array of slots that grows and shrinks into
// their area, blocks that are kept, left and used again, holes that are closed, the file that is
// cut. All places are reckoned here from the layout alone.

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "transaction/commit_bench.h"

namespace zelta::testing {
namespace {

using Blocks = std::map<std::uint64_t, std::uint64_t>;
using Places = std::map<std::uint64_t, std::uint64_t>;

constexpr std::uint64_t kBlock = 48;       ///< of an object of kVariable with 20 letters
constexpr std::uint64_t kFirstArea = 612;  ///< from the slot base, room for 50 slots
constexpr std::uint64_t kStep = 630;       ///< 15 times the 42 bytes of kVariable's unit
constexpr std::uint64_t kRecord = 10;      ///< of kFixed

std::vector<EditStep> erases(std::uint64_t from, std::uint64_t to) {
  std::vector<EditStep> steps;
  for (std::uint64_t id = from; id <= to; ++id) steps.push_back(erase(id));
  return steps;
}

Model modelOf(const std::vector<std::vector<EditStep>>& commits, const TableForm& form) {
  Model model;
  for (const auto& steps : commits) {
    for (EditStep step : steps) {
      if (form.fixed) step.content.text.clear();
      applyStep(model, step);
    }
  }
  return model;
}

/// Places of objects of a fixed table, counted in records from the area's start.
Places placesOf(Bench& bench) {
  const RawTable raw = bench.raw();
  Places places;
  for (const auto& [id, position] : raw.positions) {
    places[id] = (position - raw.areaStart) / kRecord;
  }
  return places;
}

// -- The array of slots ---------------------------------------------------------------------------

TEST(SlotArray, Grows_by_its_step_and_records_in_the_way_go_to_the_end) {
  Bench bench(kVariable);
  bench.commit(adds(1, 50));
  const RawTable before = bench.raw();
  ASSERT_EQ(before.areaStart, before.slotBase + kFirstArea);
  bench.commit({add(51, 51)});
  const RawTable after = bench.raw();
  EXPECT_EQ(after.areaStart, before.areaStart + kStep);
  // Fourteen records begin in the 630 bytes; the rest of the last one is free.
  EXPECT_EQ(after.freeBlocks, (Blocks{{after.areaStart, 14 * kBlock - kStep}}));
  EXPECT_EQ(after.positions.at(1), before.end);
  EXPECT_EQ(after.positions.at(14), before.end + 13 * kBlock);
  EXPECT_EQ(after.positions.at(15), before.positions.at(15));
  EXPECT_EQ(after.positions.at(51), before.end + 14 * kBlock);
  EXPECT_EQ(after.end, before.end + 15 * kBlock);
}

TEST(SlotArray, Of_a_fixed_table_grows_by_whole_records) {
  struct Case {
    const TableForm& form;
    std::uint64_t record;
    std::uint64_t step;
    std::uint64_t firstThatStays;
  };
  for (const Case& at : {Case{kForms[0], 10, 600, 51}, Case{kForms[1], 14, 602, 44}}) {
    SCOPED_TRACE(at.form.name);
    Bench bench(at.form);
    bench.commit(adds(1, 50));
    const RawTable before = bench.raw();
    bench.commit({add(51, 51)});
    const RawTable after = bench.raw();
    EXPECT_EQ(after.areaStart, before.areaStart + at.step);
    const std::uint64_t first = std::max(before.end, after.areaStart);
    for (std::uint64_t id = 1; id <= 51; ++id) {
      const bool stays = id >= at.firstThatStays && id <= 50;
      const std::uint64_t moved = id == 51 ? at.firstThatStays - 1 : id - 1;
      EXPECT_EQ(after.positions.at(id), stays ? before.positions.at(id) : first + at.record * moved)
          << id;
    }
  }
}

TEST(SlotArray, Grows_by_several_steps_for_an_ID_far_above) {
  for (const TableForm& form : {kFixed, kVariable}) {
    Bench bench(form);
    bench.commit({add(200, 200)});
    const RawTable raw = bench.raw();
    // Slot 201 would end at 2412 from the slot base. Three steps of 600 lead just there.
    EXPECT_EQ(raw.areaStart - raw.slotBase, kFirstArea + 3 * (form.fixed ? 600 : kStep));
    EXPECT_EQ(raw.positions.at(200), raw.areaStart);
  }
}

TEST(SlotArray, Takes_another_step_where_what_is_left_over_could_not_be_a_free_block) {
  Bench bench(kVariable);
  bench.commit(adds(1, 50, 40));  // blocks of 64: one step would leave 10 bytes, two leave 20
  const RawTable before = bench.raw();
  bench.commit({add(51, 51, 40)});
  const RawTable after = bench.raw();
  EXPECT_EQ(after.areaStart, before.areaStart + 2 * kStep);
  EXPECT_EQ(after.freeBlocks, (Blocks{{after.areaStart, 20}}));
  EXPECT_EQ(after.positions.at(20), before.end + 19 * 64);
  EXPECT_EQ(after.positions.at(21), before.positions.at(21));
}

TEST(SlotArray, Takes_free_blocks_over_and_trims_the_one_at_its_end) {
  Bench bench(kVariable);
  bench.commit(adds(1, 50));
  bench.commit({erase(3), erase(4), erase(14), erase(15)});
  const RawTable before = bench.raw();
  ASSERT_EQ(before.freeBlocks.size(), 2u);
  bench.commit({add(51, 51)});
  const RawTable after = bench.raw();
  EXPECT_EQ(after.areaStart, before.areaStart + kStep);
  // Of the second block 90 bytes are left; their tail takes the first record that has to go.
  EXPECT_EQ(after.freeBlocks, (Blocks{{after.areaStart, 42}}));
  EXPECT_EQ(after.positions.at(1), before.areaStart + 14 * kBlock);
  EXPECT_EQ(after.positions.at(2), before.end);
  EXPECT_EQ(after.positions.at(16), before.positions.at(16));
  EXPECT_EQ(after.freeIDs, (std::vector<std::uint64_t>{3, 4, 14, 15}));
}

TEST(SlotArray, Grows_over_objects_that_the_same_commit_deletes_and_rewrites) {
  for (const TableForm& form : kForms) {
    SCOPED_TRACE(form.name);
    const std::vector<std::vector<EditStep>> commits = {
        adds(1, 50),
        {erase(2), rewrite(3, 103), rewrite(4, 104, 300), rewrite(14, 114, 300), rewrite(15, 115),
         erase(49), rewrite(50, 150), add(51, 51), add(53, 53)}};
    Bench bench(form);
    for (const auto& steps : commits) bench.commit(steps);
    EXPECT_EQ(bench.raw().objects, modelOf(commits, form));
    EXPECT_EQ(bench.raw().freeIDs, (std::vector<std::uint64_t>{2, 49, 52}));
  }
}

TEST(SlotArray, Shrinks_while_it_is_larger_than_wanted_by_a_unit) {
  Bench bench(kVariable);
  bench.commit(adds(1, 200));
  const RawTable before = bench.raw();
  ASSERT_EQ(before.areaStart, before.slotBase + kFirstArea + 3 * kStep);
  bench.commit(erases(5, 200));
  const RawTable after = bench.raw();
  // Wanted are slots up to 75, which are 900 bytes: 2502 are too many, so are 1872 and 1242.
  EXPECT_EQ(after.areaStart, after.slotBase + kFirstArea);
  EXPECT_EQ(after.freeBlocks, (Blocks{{after.areaStart, 3 * kStep}}));
  EXPECT_EQ(after.positions.at(1), before.positions.at(1));
  EXPECT_EQ(after.end, before.areaStart + 4 * kBlock);
  bench.commit({add(5, 5)});
  EXPECT_EQ(bench.raw().positions.at(5), before.areaStart - kBlock) << "the slots' space is used";
}

TEST(SlotArray, Of_a_fixed_table_shrinks_and_its_last_records_move_in) {
  Bench bench(kFixed);
  bench.commit(adds(1, 200));
  const RawTable before = bench.raw();
  ASSERT_EQ(before.areaStart, before.slotBase + kFirstArea + 3 * 600);
  bench.commit(erases(5, 200));
  const RawTable after = bench.raw();
  EXPECT_EQ(after.areaStart, after.slotBase + kFirstArea);
  EXPECT_EQ(after.end, after.areaStart + 4 * kRecord);
  for (std::uint64_t id = 1; id <= 4; ++id) {
    EXPECT_EQ(after.positions.at(id), after.areaStart + (4 - id) * kRecord) << id;
  }
}

TEST(SlotArray, Of_a_fixed_table_leaves_its_room_to_new_objects_first) {
  std::vector<EditStep> most = adds(1, 200);
  most.erase(most.begin() + 2);  // no object 3
  std::vector<EditStep> changes = erases(5, 200);
  changes.push_back(add(3, 3));
  changes.push_back(rewrite(4, 104));
  Bench bench(kFixed);
  bench.commit(most);
  bench.commit(changes);
  const RawTable raw = bench.raw();
  EXPECT_EQ(raw.areaStart, raw.slotBase + kFirstArea);
  EXPECT_EQ(placesOf(bench), (Places{{3, 0}, {4, 1}, {2, 2}, {1, 3}}));
  EXPECT_EQ(raw.objects, modelOf({most, changes}, kFixed));
}

TEST(SlotArray, Of_many_slots_is_chained_and_cleared_without_a_break) {
  constexpr std::uint64_t kFar = 10000;  // more than is written in one go
  for (const TableForm& form : {kFixed, kVariable}) {
    SCOPED_TRACE(form.name);
    Bench bench(form);
    bench.commit({add(1, 1), add(kFar, 2)});
    EXPECT_EQ(bench.raw().freeIDs.size(), kFar - 2);
    bench.commit({erase(kFar)});
    const RawTable raw = bench.raw();
    EXPECT_EQ(raw.freeIDs.size(), 0u);
    EXPECT_EQ(raw.highestID, 1u);
    // Slots that come back hold nothing of what has been there.
    bench.commit({add(kFar, 2)});
    EXPECT_EQ(bench.raw().freeIDs.size(), kFar - 2);
  }
}

TEST(SlotArray, Shrinks_from_a_certain_highest_ID_on) {
  // 60 slots take a second step. The array gets shorter when 71 slots above the highest ID and a
  // unit fit into it.
  for (const TableForm& form : {kFixed, kVariable}) {
    const std::uint64_t unit = form.fixed ? kRecord : 42;
    const std::uint64_t longer = kFirstArea + (form.fixed ? 600 : kStep);
    for (const std::uint64_t highest : {28u, 29u, 30u, 31u}) {
      Bench bench(form);
      bench.commit(adds(1, 60));
      ASSERT_EQ(bench.raw().areaStart - bench.raw().slotBase, longer);
      bench.commit(erases(highest + 1, 60));
      const bool shrinks = longer >= 12 * (highest + 71) + unit;
      EXPECT_EQ(shrinks, highest < 30);
      EXPECT_EQ(bench.raw().areaStart - bench.raw().slotBase, shrinks ? kFirstArea : longer)
          << form.name << " " << highest;
      EXPECT_EQ(bench.raw().objects.size(), highest);
    }
  }
}

TEST(SlotArray, Keeps_to_IDs_that_the_commit_adds_when_it_shrinks) {
  for (const TableForm& form : kForms) {
    SCOPED_TRACE(form.name);
    std::vector<std::vector<EditStep>> commits = {adds(1, 200), erases(3, 200)};
    commits[0].erase(commits[0].begin() + 149);  // no object 150
    commits[1].erase(commits[1].begin() + 147);
    commits[1].push_back(add(150, 150));
    Bench bench(form);
    for (const auto& steps : commits) bench.commit(steps);
    const RawTable raw = bench.raw();
    if (!form.wide) {
      EXPECT_EQ(raw.areaStart - raw.slotBase, kFirstArea + 3 * (form.fixed ? 600 : kStep));
    }
    EXPECT_EQ(raw.highestID, 150u);
    EXPECT_EQ(raw.objects, modelOf(commits, form));
    EXPECT_EQ(raw.freeIDs.size(), 147u);
  }
}

// -- Blocks ---------------------------------------------------------------------------------------

TEST(Blocks, Of_deleted_objects_join_and_vanish_at_the_end_of_the_file) {
  Bench bench(kVariable);
  bench.commit(adds(1, 6));
  const std::uint64_t start = bench.raw().areaStart;
  bench.commit({erase(4)});
  EXPECT_EQ(bench.raw().freeBlocks, (Blocks{{start + 3 * kBlock, kBlock}}));
  EXPECT_EQ(bench.raw().end, start + 6 * kBlock);
  bench.commit({erase(2)});
  EXPECT_EQ(bench.raw().freeBlocks,
            (Blocks{{start + kBlock, kBlock}, {start + 3 * kBlock, kBlock}}));
  bench.commit({erase(5)});
  EXPECT_EQ(bench.raw().freeBlocks,
            (Blocks{{start + kBlock, kBlock}, {start + 3 * kBlock, 2 * kBlock}}));
  bench.commit({erase(6)});
  EXPECT_EQ(bench.raw().freeBlocks, (Blocks{{start + kBlock, kBlock}}));
  EXPECT_EQ(bench.raw().end, start + 3 * kBlock);
  EXPECT_EQ(bench.folder.bytes("T.zlt").size(), start + 3 * kBlock);
  EXPECT_EQ(bench.raw().highestID, 3u);
  bench.commit({erase(3)});
  EXPECT_EQ(bench.raw().freeBlocks, Blocks{});
  EXPECT_EQ(bench.raw().end, start + kBlock);
}

TEST(Blocks, That_a_commit_gives_up_are_for_the_next_one) {
  Bench bench(kVariable);
  bench.commit(adds(1, 3));
  const RawTable before = bench.raw();
  bench.commit({erase(2), add(4, 4)});
  EXPECT_EQ(bench.raw().positions.at(4), before.end);
  bench.commit({add(2, 2)});
  EXPECT_EQ(bench.raw().positions.at(2), before.positions.at(2));
  EXPECT_EQ(bench.raw().freeBlocks, Blocks{});
}

TEST(Blocks, Are_split_from_their_tail_and_taken_whole_if_too_little_were_left) {
  Bench bench(kVariable);
  bench.commit({add(1, 1, 100), add(2, 2, 80), add(3, 3)});
  const RawTable before = bench.raw();  // blocks of 128, 112 and 48
  bench.commit({erase(1)});
  bench.commit({add(4, 4)});
  EXPECT_EQ(bench.raw().positions.at(4), before.areaStart + 80);
  EXPECT_EQ(bench.raw().freeBlocks, (Blocks{{before.areaStart, 80}}));
  bench.commit({add(5, 5)});  // 48 and another unit of 42 do not fit into 80
  EXPECT_EQ(bench.raw().positions.at(5), before.areaStart);
  EXPECT_EQ(numberAt<std::uint32_t>(bench.folder.bytes("T.zlt"), before.areaStart), 80u);
  EXPECT_EQ(bench.raw().freeBlocks, Blocks{});
  bench.commit({rewrite(5, 55)});
  EXPECT_EQ(bench.raw().positions.at(5), before.areaStart);
  bench.commit({rewrite(5, 55, 10)});  // less than half
  EXPECT_EQ(bench.raw().positions.at(5), before.end);
  EXPECT_EQ(bench.raw().freeBlocks, (Blocks{{before.areaStart, 80}}));
}

TEST(Blocks, That_rewritten_objects_leave_join_at_the_end_of_the_commit) {
  Bench bench(kVariable);
  bench.commit({add(1, 1), add(2, 2, 200), add(3, 3)});
  const RawTable before = bench.raw();
  bench.commit({rewrite(1, 11, 200), rewrite(2, 12), rewrite(3, 13, 21)});
  const RawTable after = bench.raw();
  EXPECT_EQ(after.positions.at(1), before.end);
  EXPECT_EQ(after.positions.at(2), before.end + 224);
  EXPECT_EQ(after.positions.at(3), before.positions.at(3));
  EXPECT_EQ(after.freeBlocks, (Blocks{{before.areaStart, kBlock + 224}}));
}

TEST(Blocks, Behind_the_end_of_the_table_are_cut_by_the_next_commit) {
  for (const TableForm& form : {kFixed, kVariable}) {
    Bench bench(form);
    bench.commit(adds(1, 3));
    const std::uint64_t end = bench.raw().end;
    bench.folder.write("T.zlt", bench.folder.bytes("T.zlt") + std::string(500, '\xEE'));
    bench.commit({add(4, 4)});
    EXPECT_EQ(bench.raw().positions.at(4), end);
    EXPECT_EQ(bench.folder.bytes("T.zlt").size(), end + (form.fixed ? kRecord : kBlock));
  }
}

/// Objects that do not fit into a piece of what is read or written in one go.
TEST(Blocks, Of_large_objects_are_written_moved_and_left_in_full) {
  constexpr std::size_t kPiece = 256 * 1024;
  constexpr std::size_t kRest = 11;  // of an object, around its text
  const std::vector<std::vector<EditStep>> commits = {
      {add(1, 1, kPiece + 5000), add(2, 2), add(3, 3, kPiece - kRest - 1)},
      {add(4, 4, kPiece - kRest), add(5, 5, kPiece - kRest + 1), add(6, 6), add(7, 7, 3 * kPiece)},
      {rewrite(1, 11, kPiece + 4990), rewrite(3, 13, 2 * kPiece), rewrite(7, 17, 5)},
      adds(51, 60),  // the first object gives way to the slots
      {erase(1), erase(4), rewrite(5, 15, kPiece), add(61, 61, kPiece + 3)}};
  for (const TableForm& form : {kVariable, kForms[3]}) {
    SCOPED_TRACE(form.name);
    Bench bench(form);
    std::vector<std::vector<EditStep>> done;
    for (const auto& steps : commits) {
      bench.commit(steps);
      done.push_back(steps);
      EXPECT_TRUE(bench.raw().objects == modelOf(done, form)) << done.size();
    }
  }
}

// -- Holes ----------------------------------------------------------------------------------------

TEST(Holes, Are_filled_by_new_objects_first_in_the_order_of_IDs) {
  Bench bench(kFixed);
  bench.commit(adds(1, 6));
  bench.commit({erase(5), add(8, 8), erase(2), add(7, 7), add(9, 9)});
  EXPECT_EQ(placesOf(bench), (Places{{1, 0}, {7, 1}, {3, 2}, {4, 3}, {8, 4}, {6, 5}, {9, 6}}));
}

TEST(Holes, That_are_left_take_the_last_records) {
  Bench bench(kFixed);
  bench.commit(adds(1, 10));
  bench.commit({erase(3), erase(9), erase(10)});
  EXPECT_EQ(placesOf(bench), (Places{{1, 0}, {2, 1}, {8, 2}, {4, 3}, {5, 4}, {6, 5}, {7, 6}}));
  bench.commit({erase(8)});
  EXPECT_EQ(placesOf(bench), (Places{{1, 0}, {2, 1}, {7, 2}, {4, 3}, {5, 4}, {6, 5}}));
  bench.commit({erase(6)});
  EXPECT_EQ(placesOf(bench), (Places{{1, 0}, {2, 1}, {7, 2}, {4, 3}, {5, 4}}));
}

TEST(Holes, Take_a_rewritten_last_record_with_its_new_content) {
  Bench bench(kFixed);
  bench.commit(adds(1, 10));
  bench.commit({erase(2), erase(4), erase(6), add(11, 11), rewrite(5, 105), rewrite(10, 110)});
  const Places expected = {{1, 0}, {11, 1}, {3, 2}, {10, 3}, {5, 4}, {9, 5}, {7, 6}, {8, 7}};
  EXPECT_EQ(placesOf(bench), expected);
  EXPECT_EQ(bench.raw().objects.at(5).number, 105u);
  EXPECT_EQ(bench.raw().objects.at(10).number, 110u);
  EXPECT_EQ(bench.raw().objects.at(9).number, 9u);
}

// -- Free IDs -------------------------------------------------------------------------------------

/// Leads from every set of some IDs in use to every other one. Some IDs between are never used.
TEST(FreeIDs, Are_listed_in_order_after_every_change_of_those_in_use) {
  constexpr TableForm kForm = {"fixed without index", true, false, false};
  constexpr std::uint64_t kIDs[] = {1, 2, 4, 5, 8};
  constexpr unsigned kSets = 1U << std::size(kIDs);
  Bench bench(kForm);
  EditSession session(bench.folder, kForm);
  ASSERT_TRUE(session.enter().ok()) << session.error();
  unsigned present = 0;
  const auto change = [&](unsigned to) {
    std::vector<std::uint64_t> expected;
    std::uint64_t highest = 0;
    for (std::size_t i = 0; i < std::size(kIDs); ++i) {
      const unsigned bit = 1U << i;
      if ((to & bit) != 0) highest = kIDs[i];
      if ((present & bit) == (to & bit)) continue;
      const bool adds = (to & bit) != 0;
      const Result done = adds ? session.add(content(7), kIDs[i]) : session.erase(kIDs[i]);
      ASSERT_TRUE(done.ok()) << session.error();
    }
    ASSERT_TRUE(session.commit().ok()) << session.error();
    ASSERT_EQ(session.error(), "");
    for (std::uint64_t id = 1; id < highest; ++id) {
      const auto* found = std::find(std::begin(kIDs), std::end(kIDs), id);
      if (found == std::end(kIDs) || (to >> (found - kIDs) & 1) == 0) expected.push_back(id);
    }
    const RawTable raw = bench.raw();
    ASSERT_EQ(raw.highestID, highest);
    ASSERT_EQ(raw.freeIDs, expected);
    present = to;
  };
  for (unsigned from = 0; from < kSets; ++from) {
    for (unsigned to = from + 1; to < kSets; ++to) {
      SCOPED_TRACE("between " + std::to_string(from) + " and " + std::to_string(to));
      change(to);
      if (HasFatalFailure()) return;
      change(from);
      if (HasFatalFailure()) return;
    }
    if (from + 1 < kSets) change(from + 1);
  }
}

}  // namespace
}  // namespace zelta::testing
