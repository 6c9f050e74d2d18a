// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/capturing_log.h"
#include "zrstl/observable_impl.h"

namespace {

/// Told of every yield of its own thread, which is how an unregistration waits.
thread_local std::function<void()>* t_onYield = nullptr;

}  // namespace

// In place of the C library's, so that a test need not guess whether, or how long, a removal has waited.
extern "C" int sched_yield() noexcept {
  if (t_onYield != nullptr) (*t_onYield)();
  return static_cast<int>(syscall(SYS_sched_yield));
}

namespace zr::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using zr::halden::test::Happening;

static_assert(zr::kStallReportInterval == 100000000);

struct Observer {
  explicit Observer(std::function<void(int)> onEvent) : m_onEvent(std::move(onEvent)) {}
  void OnEvent(int event) { m_onEvent(event); }
  const std::function<void(int)> m_onEvent;
};

std::shared_ptr<Observer> Calling(std::function<void(int)> onEvent) {
  return std::make_shared<Observer>(std::move(onEvent));
}

/// Reports a stall often enough for a test to wait for it.
struct Publisher : zr::ObservableImpl<Observer, 500> {
  void Publish(int event) const { NotifyObservers(&Observer::OnEvent, event); }
  std::vector<std::shared_ptr<Observer>> Snapshot() const { return GetObserversStrong(); }
  using ObservableImpl::ClearObservers;
  using ObservableImpl::GetObservers;
};

/// For tests in which nobody else notifies: a removal must then not even yield, nobody would end its wait.
class ObserverList : public ::testing::Test {
 protected:
  ObserverList() { t_onYield = &m_onYield; }
  ~ObserverList() override { t_onYield = nullptr; }

  std::shared_ptr<Observer> Recording(const std::string& name) {
    return Calling([this, name](int event) { m_calls.push_back(name + std::to_string(event)); });
  }

  std::vector<std::string> CallsOf(int event) {
    m_calls.clear();
    m_publisher.Publish(event);
    return m_calls;
  }

  std::function<void()> m_onYield = [] {
    ADD_FAILURE() << "a removal waits for nobody";
    std::abort();
  };
  Publisher m_publisher;
  std::vector<std::string> m_calls;
};

TEST_F(ObserverList, SharedAndWeakOnesAreCalledInOneOrderAndAsOftenAsRegistered) {
  const auto a = Recording("a");
  const auto b = Recording("b");
  m_publisher.RegisterShared(a);
  m_publisher.RegisterWeak(b);
  m_publisher.RegisterShared(Recording("c"));
  m_publisher.RegisterWeak(a);
  EXPECT_THAT(CallsOf(1), ElementsAre("a1", "b1", "c1", "a1"));
  m_publisher.UnregisterShared(a);
  EXPECT_THAT(CallsOf(2), ElementsAre("b2", "c2", "a2"));
  EXPECT_EQ(a.use_count(), 1) << "the first registration, which owned it, was to go";
  m_publisher.UnregisterWeak(b);
  EXPECT_THAT(CallsOf(3), ElementsAre("c3", "a3"));
}

TEST_F(ObserverList, NullAndExpiredOnesAreNotRegisteredAndOneThatExpiresIsSkippedAndKept) {
  auto b = Recording("b");
  const std::weak_ptr<Observer> expiring = b;
  const auto c = Recording("c");
  m_publisher.RegisterShared(Recording("a"));
  m_publisher.RegisterWeak(b);
  m_publisher.RegisterShared(c);
  b.reset();
  m_publisher.RegisterShared(nullptr);
  m_publisher.RegisterWeak({});
  m_publisher.RegisterWeak(expiring);
  EXPECT_THAT(CallsOf(1), ElementsAre("a1", "c1"));
  m_publisher.UnregisterWeak(expiring);
  EXPECT_THAT(m_publisher.Snapshot(), ElementsAre(::testing::NotNull(), nullptr, c));
  m_publisher.UnregisterShared(c);  // behind the hole: both lists must lose the same place
  EXPECT_THAT(CallsOf(2), ElementsAre("a2"));
  EXPECT_EQ(m_publisher.GetObservers().size(), 2u);
  m_publisher.ClearObservers();
  EXPECT_THAT(m_publisher.GetObservers(), IsEmpty());
  EXPECT_THAT(CallsOf(3), IsEmpty());
}

TEST_F(ObserverList, OneThatRemovesItselfLivesUntilThePassEndsAndIsNotCalledAgain) {
  auto last = Recording("last");
  const std::weak_ptr<Observer> removedEarlier = last;
  std::weak_ptr<Observer> self;
  auto first = Calling([&](int) {
    m_publisher.UnregisterWeak(removedEarlier);
    m_publisher.UnregisterWeak(self);
    m_calls.emplace_back("first");
  });
  self = first;
  m_publisher.RegisterShared(std::move(first));
  m_publisher.RegisterShared(Calling([&](int event) { EXPECT_EQ(self.expired(), event > 1); }));
  m_publisher.RegisterShared(std::move(last));
  EXPECT_THAT(CallsOf(1), ElementsAre("first", "last1")) << "the pass must go on with its snapshot";
  EXPECT_TRUE(removedEarlier.expired());
  EXPECT_THAT(CallsOf(2), IsEmpty());
}

TEST_F(ObserverList, ARemovalDoesNotWaitForAPassThatAnObserverThrewOutOf) {
  const auto a = Recording("a");
  m_publisher.RegisterShared(a);
  m_publisher.RegisterShared(Calling([](int) { throw std::out_of_range("observer"); }));
  m_publisher.RegisterShared(Recording("c"));
  std::thread([&] { EXPECT_THROW(m_publisher.Publish(1), std::out_of_range); }).join();
  EXPECT_THAT(m_calls, ElementsAre("a1"));
  m_publisher.UnregisterShared(a);
}

TEST_F(ObserverList, ARemovalDoesNotWaitForThePassItIsCalledInNorAfterAPassWithin) {
  const auto a = Recording("a");
  const auto b = Recording("b");
  m_publisher.RegisterShared(Calling([&](int event) {
    m_publisher.UnregisterShared(a);
    if (event == 1) m_publisher.Publish(2);  // which blanks the record of the outer pass when it ends
    m_publisher.UnregisterShared(b);
  }));
  m_publisher.RegisterShared(a);
  m_publisher.RegisterShared(b);
  EXPECT_THAT(CallsOf(1), ElementsAre("b2", "a1", "b1"));
}

/// A pass that another thread is in the middle of: inside an observer, until let go.
class RunningPass {
 public:
  RunningPass() {
    m_publisher.RegisterShared(m_observer);
    m_thread = std::thread([this] {
      m_publisher.Publish(1);
      m_ended.Set();
    });
    EXPECT_TRUE(m_inside.Await());
  }
  ~RunningPass() {
    m_letGo.Set();
    m_thread.join();
  }

  /// Unregisters `observer`, and lets the pass go, and end, at yield number `yields` of the wait.
  void UnregisterAndLetGoAt(std::uint64_t yields, const Observer* observer) {
    std::uint64_t counter = 0;
    std::function<void()> onYield = [&] {
      if (++counter != yields) return;
      m_list = m_publisher.Snapshot();
      m_letGo.Set();
      EXPECT_TRUE(m_ended.Await());
    };
    t_onYield = &onYield;
    m_publisher.UnregisterRaw(observer);
    t_onYield = nullptr;
    EXPECT_EQ(counter, yields) << "it was to wait for the end of the pass, and no longer";
  }

  Publisher m_publisher;
  Happening m_inside;
  Happening m_letGo;
  Happening m_ended;
  std::vector<std::shared_ptr<Observer>> m_list;  ///< as it was during the wait
  const std::shared_ptr<Observer> m_observer = Calling([this](int) {
    m_inside.Set();
    EXPECT_TRUE(m_letGo.Await());
  });
  std::thread m_thread;
};

TEST(ObserverRemoval, WaitsForAPassOnAnotherThreadWithTheListAlreadyChangedAndFree) {
  RunningPass pass;
  pass.UnregisterAndLetGoAt(3, pass.m_observer.get());
  EXPECT_THAT(pass.m_list, IsEmpty());
}

TEST(ObserverRemoval, WaitsAlsoWhenItFindsNothingButNotForNoObserver) {
  RunningPass pass;
  std::weak_ptr<Observer> expired = Calling([](int) {});
  pass.m_publisher.UnregisterRaw(nullptr);
  pass.m_publisher.UnregisterShared(nullptr);
  pass.m_publisher.UnregisterWeak(expired);
  pass.UnregisterAndLetGoAt(3, Calling([](int) {}).get());
  EXPECT_THAT(pass.m_list, ElementsAre(pass.m_observer));
}

TEST(ObserverRemoval, ReportsAStallAtEveryIntervalWhereTheLevelAdmitsIt) {
  const auto reportsOfAWait = [](std::uint64_t yields, zr::logging::LogLevel least) {
    RunningPass pass;
    const zr::halden::test::CapturingLog log;
    zr::logging::SetMinimumLoggingLevel(least);
    pass.UnregisterAndLetGoAt(yields, pass.m_observer.get());
    const std::string stall = "UnregisterRaw appears stalled. Possible dead/live lock! Function has looped ";
    return std::pair(log.Count("", stall), log.Count("", stall + "1000 times"));
  };
  EXPECT_EQ(reportsOfAWait(499, zr::logging::ZRLOG_INFO), std::pair(0L, 0L));
  EXPECT_EQ(reportsOfAWait(1000, zr::logging::ZRLOG_INFO), std::pair(2L, 1L));
  EXPECT_EQ(reportsOfAWait(2500, zr::logging::ZRLOG_INFO_LOCAL), std::pair(0L, 0L));
}

}  // namespace
}  // namespace zr::test
