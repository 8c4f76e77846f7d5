#include "AsioWakeUp.hpp"

#include <boost/asio/detail/epoll_reactor.hpp>
#include <boost/asio/detail/conditionally_enabled_mutex.hpp>
#include <boost/asio/detail/scheduler.hpp>

namespace vantor::platform::detail {

namespace {

namespace ad = boost::asio::detail;

// Reads private members through pointers to them, which an explicit
// instantiation may name: the standard's one sanctioned way in.
template <class Tag, typename Tag::type Member>
struct Reach {
  friend typename Tag::type reach(Tag) { return Member; }
};

struct EpollDescriptor {
  using type = int ad::epoll_reactor::*;
  friend type reach(EpollDescriptor);
};
template struct Reach<EpollDescriptor, &ad::epoll_reactor::epoll_fd_>;

struct TaskInterrupted {
  using type = bool ad::scheduler::*;
  friend type reach(TaskInterrupted);
};
template struct Reach<TaskInterrupted, &ad::scheduler::task_interrupted_>;

struct SchedulerMutex {
  using type = ad::conditionally_enabled_mutex ad::scheduler::*;
  friend type reach(SchedulerMutex);
};
template struct Reach<SchedulerMutex, &ad::scheduler::mutex_>;

}  // namespace

int readinessDescriptor(boost::asio::io_context& context) {
  auto& scheduler = boost::asio::use_service<ad::scheduler>(context);
  scheduler.init_task();  // the reactor, made now rather than by the first socket
  auto& reactor = boost::asio::use_service<ad::epoll_reactor>(context);
  return reactor.*reach(EpollDescriptor{});
}

void armWakeUp(boost::asio::io_context& context) {
  auto& scheduler = boost::asio::use_service<ad::scheduler>(context);
  ad::conditionally_enabled_mutex::scoped_lock lock(scheduler.*reach(SchedulerMutex{}));
  scheduler.*reach(TaskInterrupted{}) = false;
}

}  // namespace vantor::platform::detail
