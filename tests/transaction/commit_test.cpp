// Commits and aborts: what they leave in the files, and what others see.

#include <gtest/gtest.h>

#include "platform/file_io.h"
#include "transaction/commit_bench.h"
#include "transaction/log/log_parameters.h"

namespace zelta::testing {
namespace {

// -- Commit ---------------------------------------------------------------------------------------

TEST(Commit, A_new_table_has_room_for_fifty_slots) {
  Bench bench(kVariable);
  const RawTable raw = bench.raw();
  EXPECT_EQ(raw.areaStart - raw.slotBase - 12, 600u);
  EXPECT_EQ(raw.end, raw.areaStart);
  bench.fill(50);
  const RawTable full = bench.raw();
  EXPECT_EQ(full.areaStart, raw.areaStart);
  EXPECT_EQ(full.highestID, 50u);
  EXPECT_EQ(full.objects.size(), 50u);
}

TEST(Commit, One_object_more_moves_the_records_that_stand_in_the_way) {
  for (const TableForm& form : kForms) {
    Bench bench(form);
    bench.fill(50);
    const std::uint64_t before = bench.raw().areaStart;
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.add(content(51, bench.textOf(51))).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    const RawTable after = bench.raw();
    EXPECT_GE(after.areaStart, before + 600) << form.name;
    ASSERT_EQ(after.objects.size(), 51u) << form.name;
    for (std::uint32_t i = 1; i <= 51; ++i) {
      EXPECT_EQ(after.objects.at(i).number, i) << form.name;
    }
  }
}

TEST(Commit, Without_edits_changes_nothing) {
  Bench bench(kVariable);
  bench.fill(3);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.read(2).ok());
  const std::string table = bench.folder.bytes("T.zlt");
  const std::string log = bench.folder.bytes("db.zll");
  EXPECT_TRUE(session.commit(false).ok());
  EXPECT_EQ(bench.folder.bytes("T.zlt"), table);
  EXPECT_EQ(bench.folder.bytes("db.zll"), log);
  EXPECT_NE(session.table().lockedObjects, nullptr);
  EXPECT_TRUE(session.commit(true).ok());
  EXPECT_EQ(session.table().lockedObjects, nullptr);
  EXPECT_EQ(session.table().currentObjectID, 0u);
}

TEST(Commit, Leaves_no_entry_in_the_single_log_and_nothing_in_the_memory_file) {
  Bench bench(kVariable);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  const std::string empty = bench.folder.bytes("T.zlm");
  ASSERT_TRUE(session.add(content(1, "one")).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  const std::string log = bench.folder.bytes("db.zll");
  EXPECT_EQ(log.size(), 112u);
  EXPECT_EQ(log.substr(0, 4), "ZELL");
  EXPECT_EQ(numberAt<std::uint64_t>(log, 8), 0u);
  EXPECT_EQ(session.table().addedObjects, nullptr);
  EXPECT_EQ(session.table().pendingBytes, 0u);
  // The roots of the object map and of the pending keys.
  const std::string memory = bench.folder.bytes("T.zlm");
  for (std::uint64_t i = 0; i < 3; ++i) {
    EXPECT_EQ(numberAt<std::uint64_t>(memory, 80 + 8 * i), 0u) << i;
  }
}

TEST(Commit, Writes_an_entry_with_images_and_deleted_ids) {
  Bench bench(kVariable);
  bench.fill(3);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.begin(CZELTA::TransactionExclusive).ok());
  ASSERT_TRUE(setDatabaseParameter(session.metaData, CZELTA::ParameterKeepLogFiles, 1).ok());
  ASSERT_TRUE(session.end().ok());
  ASSERT_TRUE(session.enter().ok());
  const std::uint32_t number = session.metaData.transactionWord;
  ASSERT_TRUE(session.add(content(9, "new")).ok());
  ASSERT_TRUE(session.rewrite(2, content(8, "rewritten")).ok()) << session.error();
  ASSERT_TRUE(session.erase(1).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();

  const std::string log = bench.folder.bytes("db.0000.zll");
  const std::uint64_t at = 432;  // the first entry of a file
  const auto length = numberAt<std::uint64_t>(log, at);
  EXPECT_EQ(log.substr(at + 8, 4), "ZELL");
  EXPECT_EQ(numberAt<std::uint32_t>(log, at + 12), number);
  EXPECT_EQ(numberAt<std::uint32_t>(log, at + 16), 1u);
  std::uint64_t sum = 0;
  xorChecksum64(sum, log.data() + at + 32, length - 32);
  EXPECT_EQ(numberAt<std::uint64_t>(log, at + 24), sum);
  EXPECT_EQ(log.substr(at + 32, 4), "ZELD");
  EXPECT_EQ(numberAt<std::uint32_t>(log, at + 36), 1u);
  EXPECT_EQ(numberAt<std::uint64_t>(log, at + 40), 1u);
  // Each image: its length, version word, ID, number, text; then zeros to a multiple of 4.
  Packed expected;
  expected.number(std::uint32_t{1});
  expected.number(std::uint32_t{20}).number(std::uint16_t{2}).number(std::uint32_t{2});
  expected.number(std::uint32_t{8}).text("rewritten");
  expected.number(std::uint32_t{14}).number(std::uint16_t{1}).number(std::uint32_t{4});
  expected.number(std::uint32_t{9}).text("new").zeros(2);
  EXPECT_EQ(numberAt<std::uint64_t>(log, at + 48), expected.str().size() - 4);
  EXPECT_EQ(log.substr(at + 56, expected.str().size()), expected.str());
  const std::uint64_t end = at + 56 + expected.str().size();
  EXPECT_EQ(log.find_first_not_of('\0', end), std::string::npos);
}

TEST(Commit, A_second_commit_of_a_transaction_brings_only_what_came_between) {
  for (const TableForm& form : allForms()) {
    Bench bench(form);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.add(content(1)).ok());
    ASSERT_TRUE(session.commit(false).ok()) << session.error();
    ASSERT_TRUE(session.rewrite(1, content(5)).ok()) << session.error();
    ASSERT_TRUE(session.add(content(2)).ok()) << session.error();
    ASSERT_TRUE(session.commit(true).ok()) << session.error();
    ASSERT_TRUE(session.erase(1).ok()) << session.error();
    ASSERT_TRUE(session.commit(true).ok()) << session.error();
    const RawTable raw = bench.raw();
    ASSERT_EQ(raw.objects.size(), 1u) << form.name;
    EXPECT_EQ(raw.objects.at(2).number, 2u);
    EXPECT_EQ(raw.freeIDs, std::vector<std::uint64_t>{1});
  }
}

TEST(Commit, Kept_locks_keep_others_away_from_what_was_added) {
  Bench bench(kVariable);
  EditSession one(bench.folder, kVariable);
  EditSession two(bench.folder, kVariable);
  ASSERT_TRUE(one.enter().ok());
  ASSERT_TRUE(two.enter().ok());
  ASSERT_TRUE(one.add(content(1, "one")).ok());
  ASSERT_TRUE(one.commit(false).ok()) << one.error();
  const std::uint64_t id = 1;
  EXPECT_TRUE(readObject({two.metaData, two.tables}, two.table(),
                         {CZELTA::ReadEqual | CZELTA::ReadNoWait, 0, &id}, nullptr, nullptr)
                  .is(Own::objectLocked));
  ASSERT_TRUE(one.commit(true).ok());
  EXPECT_TRUE(two.read(1).ok()) << two.error();
}

TEST(Commit, A_far_id_puts_all_below_it_on_the_list) {
  for (const TableForm& form : kForms) {
    Bench bench(form);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    ASSERT_TRUE(session.add(content(1), 100).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    const RawTable raw = bench.raw();
    EXPECT_EQ(raw.highestID, 100u);
    ASSERT_EQ(raw.freeIDs.size(), 99u) << form.name;
    EXPECT_EQ(raw.freeIDs.front(), 1u);
    EXPECT_EQ(raw.freeIDs.back(), 99u);
  }
}

TEST(Commit, Two_gaps_in_one_commit_are_chained) {
  Bench bench(kVariable);
  bench.fill(2);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.add(content(10), 10).ok());
  ASSERT_TRUE(session.add(content(20), 15).ok());
  ASSERT_TRUE(session.add(content(30), 16).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  const RawTable raw = bench.raw();
  const std::vector<std::uint64_t> expected = {3, 4, 5, 6, 7, 8, 9, 11, 12, 13, 14};
  EXPECT_EQ(raw.freeIDs, expected);
}

TEST(Commit, Deleting_the_highest_id_lowers_it_and_cuts_the_list) {
  for (const TableForm& form : kForms) {
    Bench bench(form);
    bench.fill(6);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    for (const std::uint64_t id : {2u, 3u, 5u}) ASSERT_TRUE(session.erase(id).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    EXPECT_EQ(bench.raw().freeIDs, (std::vector<std::uint64_t>{2, 3, 5})) << form.name;
    ASSERT_TRUE(session.erase(6).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    EXPECT_EQ(bench.raw().highestID, 4u);
    EXPECT_EQ(bench.raw().freeIDs, (std::vector<std::uint64_t>{2, 3})) << form.name;
    for (std::uint32_t i = 0; i < 4; ++i) ASSERT_TRUE(session.add(content(50 + i)).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    EXPECT_EQ(bench.raw().highestID, 6u);
    EXPECT_TRUE(bench.raw().freeIDs.empty());
  }
}

TEST(Commit, A_new_object_with_a_free_id_can_become_the_last_of_a_shorter_table) {
  for (const TableForm& form : kForms) {
    Bench bench(form);
    bench.fill(6);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    for (const std::uint64_t id : {2u, 4u}) ASSERT_TRUE(session.erase(id).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    for (const std::uint64_t id : {3u, 5u, 6u}) ASSERT_TRUE(session.erase(id).ok());
    ASSERT_TRUE(session.add(content(50), 4).ok());
    ASSERT_TRUE(session.commit().ok());
    EXPECT_EQ(session.error(), "") << form.name;
    EXPECT_EQ(bench.raw().highestID, 4u) << form.name;
    EXPECT_EQ(bench.raw().freeIDs, (std::vector<std::uint64_t>{2, 3})) << form.name;
  }
}

TEST(Commit, A_table_that_becomes_empty_starts_anew) {
  for (const TableForm& form : kForms) {
    Bench bench(form);
    const RawTable fresh = bench.raw();
    bench.fill(120);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    for (std::uint64_t id = 1; id <= 120; ++id) ASSERT_TRUE(session.erase(id).ok());
    ASSERT_TRUE(session.commit().ok()) << session.error();
    const RawTable raw = bench.raw();
    EXPECT_EQ(raw.highestID, 0u);
    EXPECT_EQ(raw.firstDeleted, 0u);
    EXPECT_EQ(raw.freeHead, 0u);
    EXPECT_EQ(raw.areaStart, fresh.areaStart);
    EXPECT_EQ(raw.end, fresh.end);
  }
}

TEST(Commit, In_a_fixed_table_the_last_record_fills_the_hole) {
  Bench bench(kFixed);
  bench.fill(10);
  const RawTable before = bench.raw();
  EditSession session(bench.folder, kFixed);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.erase(3).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  const RawTable after = bench.raw();
  EXPECT_EQ(after.end, before.end - 10);
  EXPECT_EQ(after.positions.at(10), before.positions.at(3));
}

TEST(Commit, A_record_stays_in_its_block_while_that_suits_it) {
  Bench bench(kVariable);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.add(content(1, std::string(189, 'x'))).ok());  // 200 bytes
  ASSERT_TRUE(session.add(content(2, "behind it")).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  const std::uint64_t place = bench.raw().positions.at(1);
  const auto block = numberAt<std::uint32_t>(bench.folder.bytes("T.zlt"), place);
  ASSERT_EQ(block, 224u);
  // 2 * 100 + 24 is the block's size; one byte less is too little.
  ASSERT_TRUE(session.rewrite(1, content(1, std::string(89, 'y'))).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  EXPECT_EQ(bench.raw().positions.at(1), place);
  ASSERT_TRUE(session.rewrite(1, content(1, std::string(201, 'z'))).ok());  // 212 + 12
  ASSERT_TRUE(session.commit().ok()) << session.error();
  EXPECT_EQ(bench.raw().positions.at(1), place);
  ASSERT_TRUE(session.rewrite(1, content(1, std::string(88, 'y'))).ok());
  ASSERT_TRUE(session.commit().ok()) << session.error();
  EXPECT_NE(bench.raw().positions.at(1), place);
  EXPECT_EQ(bench.raw().objects.at(1).text, std::string(88, 'y'));
}

TEST(Commit, Keys_change_hands_within_a_transaction) {
  Bench bench(kVariable);
  bench.fill(3);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.erase(1).ok());
  ASSERT_TRUE(session.add(content(1, "takes the number of a deleted one")).ok()) << session.error();
  ASSERT_TRUE(session.rewrite(2, content(77, "gives its number up")).ok());
  ASSERT_TRUE(session.rewrite(3, content(2, "takes it")).ok()) << session.error();
  ASSERT_TRUE(session.commit().ok()) << session.error();
  std::string damage;
  const Model all = session.readAll(&damage);
  EXPECT_EQ(damage, "");
  ASSERT_EQ(all.size(), 3u);
  Content found;
  ASSERT_TRUE(session.readByNumber(CZELTA::ReadEqual, 2, &found).ok());
  EXPECT_EQ(found.text, "takes it");
  ASSERT_TRUE(session.readByNumber(CZELTA::ReadEqual, 1, &found).ok());
  EXPECT_EQ(found.text, "takes the number of a deleted one");
}

TEST(Commit, Ten_thousand_adds_make_few_calls) {
  Bench bench(kVariable);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  for (std::uint32_t i = 1; i <= 10000; ++i) {
    ASSERT_TRUE(session.add(content(i, std::string(80, 'a'))).ok());
  }
  const std::uint64_t calls = platform::faults::systemCalls();
  const std::uint64_t flushes = platform::faults::flushes();
  ASSERT_TRUE(session.commit().ok()) << session.error();
  EXPECT_LT(platform::faults::systemCalls() - calls, 3000u);
  EXPECT_LE(platform::faults::flushes() - flushes, 16u);
  EXPECT_EQ(bench.raw().objects.size(), 10000u);
}

// -- Abort ----------------------------------------------------------------------------------------

TEST(Abort, Leaves_table_and_index_byte_for_byte) {
  for (const TableForm& form : allForms()) {
    Bench bench(form);
    bench.fill(20);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    const std::string table = bench.folder.bytes("T.zlt");
    const std::string index = bench.folder.bytes("T.zli");
    ASSERT_TRUE(session.add(content(100)).ok());
    ASSERT_TRUE(session.rewrite(4, content(101)).ok());
    ASSERT_TRUE(session.erase(7).ok());
    ASSERT_TRUE(session.abort(true).ok()) << session.error();
    EXPECT_EQ(bench.folder.bytes("T.zlt"), table) << form.name;
    EXPECT_EQ(bench.folder.bytes("T.zli"), index) << form.name;
    EXPECT_FALSE(session.table().hasEdits());
    EXPECT_EQ(session.table().lockedObjects, nullptr);
    std::string damage;
    EXPECT_EQ(session.readAll(&damage).size(), 20u);
    EXPECT_EQ(damage, "");
    ASSERT_TRUE(session.add(content(100)).ok()) << "its key is free again: " << session.error();
  }
}

TEST(Abort, Behind_a_commit_takes_back_what_came_later) {
  Bench bench(kVariable);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.add(content(1, "stays")).ok());
  ASSERT_TRUE(session.commit(true).ok());
  ASSERT_TRUE(session.add(content(2, "goes")).ok());
  ASSERT_TRUE(session.rewrite(1, content(3, "goes too")).ok());
  ASSERT_TRUE(session.abort(true).ok());
  ASSERT_TRUE(session.end().ok());
  std::string damage;
  const Model all = contentsOf(bench.folder, kVariable, &damage);
  EXPECT_EQ(damage, "");
  EXPECT_EQ(all, (Model{{1, content(1, "stays")}}));
}

TEST(Abort, With_kept_locks_moves_rewritten_and_deleted_objects_to_the_locked_ones) {
  Bench bench(kVariable);
  bench.fill(4);
  EditSession session(bench.folder, kVariable);
  ASSERT_TRUE(session.enter().ok());
  ASSERT_TRUE(session.read(1).ok());
  ASSERT_TRUE(session.rewrite(2, content(20)).ok());
  ASSERT_TRUE(session.erase(3).ok());
  ASSERT_TRUE(session.add(content(21)).ok());
  ASSERT_TRUE(session.abort(false).ok());
  EXPECT_EQ(count(session.table().lockedObjects), 3u);
  EXPECT_EQ(find(session.table().lockedObjects, std::uint64_t{5}), nullptr);
  EXPECT_EQ(session.table().currentObjectID, 0u);
  EXPECT_FALSE(session.table().hasEdits());
  EXPECT_EQ(session.table().pendingBytes, 0u);
  ASSERT_TRUE(session.abort(true).ok());
  EXPECT_EQ(session.table().lockedObjects, nullptr);
}

// -- Many of them ---------------------------------------------------------------------------------

TEST(CommitModel, Random_transactions_leave_what_a_plain_map_would) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (const TableForm& form : allForms()) {
    SCOPED_TRACE(form.name);
    Bench bench(form);
    Model model;
    RandomEdits edits(seed, form);
    EditSession session(bench.folder, form);
    ASSERT_TRUE(session.enter().ok());
    for (int round = 0; round < 120; ++round) {
      const auto steps = edits.transaction(model, 1 + edits.below(round % 10 == 0 ? 120 : 12));
      const Result done = session.carryOut(steps);
      ASSERT_TRUE(done.ok()) << session.error();
      if (edits.below(5) == 0) {
        ASSERT_TRUE(session.abort(true).ok()) << session.error();
      } else {
        ASSERT_TRUE(session.commit(edits.below(3) != 0).ok()) << session.error();
        ASSERT_EQ(session.error(), "");
        for (const EditStep& step : steps) applyStep(model, step);
      }
      const RawTable raw = bench.raw();
      ASSERT_TRUE(raw.objects == model) << "round " << round;
      if (round % 20 == 19) {
        std::string damage;
        ASSERT_TRUE(session.readAll(&damage) == model);
        ASSERT_EQ(damage, "");
        ASSERT_TRUE(session.end().ok());
        ASSERT_TRUE(session.enter().ok());
      }
    }
  }
}

}  // namespace
}  // namespace zelta::testing
