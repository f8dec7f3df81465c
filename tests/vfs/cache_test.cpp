// Tests of the tree cache: path lookup and its one-entry cache, insertion of
// enumerated entries, the per-directory name index against a linear scan,
// destroy counts, and lookups from several threads during a fill.
#include "vfs/tq_vfs_cache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <clocale>
#include <string>
#include <thread>
#include <vector>

#include "runtime/trace.h"
#include "support/test_util.h"
#include "vfs/tq_vfs_catalog.h"

namespace {

LIS_ENTRY Entry(const std::wstring& name, char type, int32_t sset, uint64_t off, int64_t rel = 1, int64_t fourth = 1) {
  LIS_ENTRY e{};
  e.wsBaseName = name;
  e.cType = type;
  e.iSavesetIdx = sset;
  e.ullOffset = off;
  e.llRelOffset = rel;
  e.llFourth = fourth;
  e.ullSize = 1000;  // the record's whole span: never a located file's size
  return e;
}

class CacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LISCacheTerminate();
    ASSERT_EQ(0, LISCacheInit());
    root = LISCacheRoot();
  }
  void TearDown() override { LISCacheTerminate(); }
  // Runs f with level-3 traces going to a fresh file; returns the trace.
  template <typename F>
  std::string Traced(F f) {
    const std::string path = tmp / ("t" + std::to_string(++traces_) + ".trc");
    korvo::trace_configure(3, path.c_str());
    f();
    korvo::trace_configure(0, nullptr);
    return tvutest::FileExists(path) ? tvutest::ReadFile(path) : std::string();
  }
  tvutest::TempDir tmp;
  LIS_NODE* root = nullptr;
  int traces_ = 0;
};

TEST_F(CacheTest, FindAndBuildTree) {
  EXPECT_EQ(root, LISCacheFind(root, L"/", true));
  EXPECT_EQ(root, LISCacheFind(root, L"/r", true));
  EXPECT_EQ(nullptr, LISCacheFind(root, L"/r", false));

  LIS_NODE* c = LISCacheBuildTree(root, L"/R/a/b/c", true, nullptr);
  ASSERT_NE(nullptr, c);
  EXPECT_FALSE(c->bChildrenPopulated);
  LIS_NODE* b = c->pParent;
  EXPECT_EQ(c, LISCacheBuildTree(root, L"/R/A/B/C", true, nullptr));  // reuses every node
  EXPECT_NE(c, LISCacheBuildTree(root, L"/R/a/B/c", false, nullptr));  // case-sensitive: new nodes
  EXPECT_EQ(1u, root->vChildren.size());

  EXPECT_EQ(b, LISCacheFind(root, L"/R/a/b/", true));  // a trailing "/" gives the node reached
  EXPECT_EQ(nullptr, LISCacheFind(root, L"/R/a/x", true));
  EXPECT_EQ(c, LISCacheFind(b, L"/b/c", true));  // the first component names the start

  // A complete build marks the directories it creates as populated.
  bool mark = true;
  LIS_NODE* e = LISCacheBuildTree(root, L"/R/a/b/d/e", true, &mark);
  EXPECT_TRUE(e->bChildrenPopulated && e->pParent->bChildrenPopulated);
  EXPECT_FALSE(b->bChildrenPopulated);  // it existed already
}

TEST_F(CacheTest, InsertUpdatesFirstMatchIgnoringCaseKeepingNameChildrenAndFlag) {
  LIS_NODE* dir = LISCacheBuildTree(root, L"/R/dir", true, nullptr);
  LIS_NODE* first = LISCacheInsertEntry(dir, Entry(L"ReadMe.TXT", 'f', 0, 100, 7, 5));
  EXPECT_TRUE(dir->bChildrenPopulated);
  EXPECT_EQ(5u, first->ullSize);  // the fourth number, not the span

  // The later entry wins; the name stays as first inserted.
  EXPECT_EQ(first, LISCacheInsertEntry(dir, Entry(L"README.txt", 'f', 1, 200, 9, 6)));
  ASSERT_EQ(1u, dir->vChildren.size());
  EXPECT_EQ(L"ReadMe.TXT", first->wsName);
  EXPECT_EQ(1, first->sLoc.ssetIdx);
  EXPECT_EQ(200u, first->sLoc.ssetOff);
  EXPECT_EQ(9, first->sLoc.relOff);
  EXPECT_EQ(6u, first->ullSize);

  // An updated directory keeps its children and its populated flag.
  LIS_NODE* sub = LISCacheInsertEntry(dir, Entry(L"sub", 'd', 0, 300, -1, 0));
  LISCacheInsertEntry(sub, Entry(L"inner", 'f', 0, 400));
  LISCacheInsertEntry(dir, Entry(L"SUB", 'd', 1, 500, -1, 0));
  EXPECT_EQ(1u, sub->vChildren.size());
  EXPECT_TRUE(sub->bChildrenPopulated);
  EXPECT_EQ(500u, sub->sLoc.ssetOff);

  // A mapper node overwritten by a catalog entry loses its payload (ASan
  // reports it otherwise).
  LIS_NODE* mapped = LISCacheNewNode(L"mapped", 'f');
  mapped->llSource = nsMAPPER;
  mapped->pMapper = new MAPPER_PAYLOAD{"/tmp/x", first};
  LISCacheAppendChild(dir, mapped);
  LISCacheInsertEntry(dir, Entry(L"MAPPED", 'f', 0, 9));
  EXPECT_EQ(nsSAVESET, mapped->llSource);
  EXPECT_EQ(nullptr, mapped->pMapper);
}

TEST_F(CacheTest, RepeatedFindIsServedByTheLookupCacheWithoutComparisons) {
  LIS_NODE* c = LISCacheBuildTree(root, L"/R/a/b/c", true, nullptr);
  LISCacheBuildTree(root, L"/R/a/b/other", true, nullptr);

  std::string trc = Traced([&] { EXPECT_EQ(c, LISCacheFind(root, L"/R/a/b/c", true)); });
  EXPECT_NE(std::string::npos, trc.find("Comparing ignore case 1 [c] to [c] identical = 1"));
  trc = Traced([&] {
    EXPECT_EQ(c, LISCacheFind(root, L"/R/a/b/c", true));
    EXPECT_EQ(c, LISCacheFind(root, L"/R/A/B/C", true));  // the same path under the flag
  });
  EXPECT_EQ(std::string::npos, trc.find("Comparing"));
  EXPECT_EQ(std::string::npos, trc.find("LISCacheFindEntryRecursive"));

  // Another start node or the other flag is another key: searched again.
  EXPECT_EQ(nullptr, LISCacheFind(root, L"/R/A/B/C", false));
  EXPECT_EQ(nullptr, LISCacheFind(c->pParent, L"/R/a/b/c", true));  // from b: no child "a"
}

TEST_F(CacheTest, DumpAndDestroyCountNodes) {
  LISCacheInsertEntry(root, Entry(L"one", 'f', 1, 100, 7, 5));
  LISCacheInsertEntry(root, Entry(L"two", 'd', 0, 2, -1, 0));
  const std::string trc = Traced([&] { EXPECT_EQ(3u, LISCacheDump(root)); });
  EXPECT_NE(std::string::npos, trc.find("*[one] fileId=[0] type=[f] childrenPopulated=[0] size=[5] ssetIdx=[1] "
                                        "ssetOff=[100] relOff=[7]"));
  EXPECT_NE(std::string::npos, trc.find("<-- [R] (entries=3)"));
  EXPECT_EQ(3u, LISCacheTerminate());
  EXPECT_EQ(0u, LISCacheTerminate());
}

// The reference: the first child, in list order, whose name compares equal.
LIS_NODE* LinearFind(LIS_NODE* dir, const std::wstring& name, bool ignoreCase) {
  for (LIS_NODE* c : dir->vChildren) {
    if (LISCacheCompareNames(ignoreCase, name.c_str(), c->wsName.c_str()) == 0) return c;
  }
  return nullptr;
}

TEST_F(CacheTest, IndexedDirectoryAnswersAsALinearScan) {
  const std::string oldLocale = std::setlocale(LC_CTYPE, nullptr);
  const bool utf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;  // folds the non-ASCII letters
  // Sizes around the index threshold and well above it.  Names repeat in
  // other cases (appended directly, as a mapper may), so the first of several
  // case variants is the one to find.
  for (size_t count : {16, 17, 5000}) {
    LIS_NODE* dir = LISCacheBuildTree(root, (L"/R/d" + std::to_wstring(count)).c_str(), true, nullptr);
    std::vector<std::wstring> queries;
    for (size_t i = 0; i < count; ++i) {
      const std::wstring n = (i % 5 ? L"File_" : L"file_") + std::to_wstring(i % (count / 2 + 1)) +
                             (i % 3 ? L"\u00e4" : L"\u00c4");
      LISCacheAppendChild(dir, LISCacheNewNode(n, 'f'));
      queries.push_back(n);
      if (i % 7 == 0) queries.push_back(L"FILE_" + std::to_wstring(i) + L"\u00c4");
      if (i % 7 == 0) queries.push_back(L"nope_" + std::to_wstring(i));
    }
    EXPECT_EQ(count > 16, dir->pIndex != nullptr) << count;
    for (const std::wstring& q : queries) {
      for (bool ignoreCase : {true, false}) {
        ASSERT_EQ(LinearFind(dir, q, ignoreCase), LISCacheFindChild(dir, q.c_str(), q.size(), ignoreCase))
            << count << " ignoreCase=" << ignoreCase;
      }
    }
    // Inserting through the index updates the first case variant.
    LIS_NODE* expected = LinearFind(dir, L"FILE_1\u00e4", true);
    EXPECT_EQ(expected, LISCacheInsertEntry(dir, Entry(L"FILE_1\u00e4", 'f', 2, 77)));
    EXPECT_EQ(count, dir->vChildren.size());
  }
  if (utf8) {  // "File_1\u00e4" (child 1) comes before "File_1\u00c4" (child 2502)
    LIS_NODE* d = LISCacheFind(root, L"/R/d5000", true);
    EXPECT_EQ(d->vChildren[1], LISCacheFindChild(d, L"FILE_1\u00c4", 7, true));
  }
  std::setlocale(LC_CTYPE, oldLocale.c_str());
}

TEST_F(CacheTest, FindsFromSeveralThreadsWhileADirectoryFills) {
  constexpr int kDirs = 20, kFiles = 200;
  for (int d = 0; d < kDirs; ++d) {
    LIS_NODE* dir = LISCacheBuildTree(root, (L"/R/dir" + std::to_wstring(d)).c_str(), true, nullptr);
    for (int f = 0; f < kFiles; ++f) LISCacheInsertEntry(dir, Entry(L"f" + std::to_wstring(f), 'f', d, f));
  }
  LIS_NODE* growing = LISCacheBuildTree(root, L"/R/growing", true, nullptr);
  std::atomic<int> wrong{0};
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int i = 0; i < 5000; ++i) {
      LISCacheLock();  // as an enumeration holds it over a fill
      LISCacheInsertEntry(growing, Entry(L"g" + std::to_wstring(i), 'f', 0, 0));
      LISCacheUnlock();
    }
    stop = true;
  });
  std::vector<std::thread> readers;
  for (unsigned t = 0; t < 4; ++t) {
    readers.emplace_back([&, t] {
      unsigned seed = 12345u + t;
      for (int i = 0; i < 20000 || !stop; ++i) {
        seed = seed * 1103515245u + 12345u;
        const int d = static_cast<int>((seed >> 8) % kDirs), f = static_cast<int>((seed >> 16) % kFiles);
        LIS_NODE* n = LISCacheFind(root, (L"/R/DIR" + std::to_wstring(d) + L"/F" + std::to_wstring(f)).c_str(), true);
        if (n == nullptr || n->sLoc.ssetIdx != d || n->sLoc.ssetOff != static_cast<uint64_t>(f)) ++wrong;
      }
    });
  }
  writer.join();
  for (std::thread& r : readers) r.join();
  EXPECT_EQ(0, wrong.load());
  EXPECT_EQ(5000u, growing->vChildren.size());
  EXPECT_NE(nullptr, LISCacheFind(root, L"/R/growing/G4999", true));
}

}  // namespace
