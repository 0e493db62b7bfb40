#include "platform/linux/StoreMigration.h"

#include <gtest/gtest.h>

#include <array>
#include <memory>
#include <string>

#include "tests/support/TemporaryFolder.h"

namespace quorvix::linuxos {
namespace {

constexpr std::array<std::string_view, 2> kSteps{"ALTER TABLE t ADD COLUMN second", "ALTER TABLE t ADD COLUMN third"};

class StoreMigration : public testing::Test {
protected:
    StoreMigration() {
        makeDatabaseFile(folder_.path("store.db"));
        database_ = std::make_unique<SqliteDatabase>(folder_.path("store.db"), std::chrono::milliseconds(1));
        database_->execute("CREATE TABLE t (first)");
    }
    void setVersion(int version) { database_->execute(("PRAGMA user_version = " + std::to_string(version)).c_str()); }
    std::int64_t version() { return database_->number("PRAGMA user_version"); }
    std::int64_t columns() { return database_->number("SELECT count(*) FROM pragma_table_info('t')"); }

    tests::TemporaryFolder folder_;
    std::unique_ptr<SqliteDatabase> database_;
};

TEST_F(StoreMigration, TakesEveryStepFromTheVersionThatIsThere) {
    setVersion(1);
    migrateStore(*database_, kSteps);
    EXPECT_EQ(version(), 3);
    EXPECT_EQ(columns(), 3);
    // Nothing is left to do.
    migrateStore(*database_, kSteps);
    EXPECT_EQ(columns(), 3);
}

TEST_F(StoreMigration, BeginsInTheMiddle) {
    setVersion(2);
    migrateStore(*database_, kSteps);
    EXPECT_EQ(version(), 3);
    EXPECT_EQ(database_->number("SELECT count(*) FROM pragma_table_info('t') WHERE name = 'second'"), 0);
}

TEST_F(StoreMigration, LeavesNewFilesNewerFilesAndImpossibleVersionsAlone) {
    for (const int other : {0, 3, 4, -1}) {
        setVersion(other);
        migrateStore(*database_, kSteps);
        EXPECT_EQ(version(), other);
        EXPECT_EQ(columns(), 1);
    }
}

TEST_F(StoreMigration, AFileThatIsNotWhatItsVersionSaysIsDamaged) {
    setVersion(1);
    database_->execute("DROP TABLE t");
    try {
        migrateStore(*database_, kSteps);
        FAIL() << "no error";
    } catch (const SqliteError& error) {
        EXPECT_TRUE(error.damaged());
    }
}

TEST_F(StoreMigration, AStepThatFailsIsTakenBackWholeAndCanBeTriedAgain) {
    setVersion(1);
    {
        SqliteDatabase other(folder_.path("store.db"));
        other.execute("BEGIN IMMEDIATE");
        try {
            migrateStore(*database_, kSteps);
            FAIL() << "no error";
        } catch (const SqliteError& error) {
            EXPECT_FALSE(error.damaged());
        }
        other.execute("COMMIT");
    }
    EXPECT_EQ(version(), 1);
    EXPECT_EQ(columns(), 1);
    database_ = std::make_unique<SqliteDatabase>(folder_.path("store.db"));
    migrateStore(*database_, kSteps);
    EXPECT_EQ(version(), 3);
}

}  // namespace
}  // namespace quorvix::linuxos
