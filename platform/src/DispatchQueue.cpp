#include "vantor/platform/DispatchQueue.hpp"

#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>

#include "DispatchQueueImpl.hpp"

namespace vantor::platform {

DispatchQueue::DispatchQueue(std::string label, EventLoop& loop)
    : label_(std::move(label)),
      loop_(loop),
      impl_(std::make_unique<Impl>(Impl{boost::asio::make_strand(loop.context())})) {}

DispatchQueue::~DispatchQueue() = default;

void DispatchQueue::async(std::function<void()> work) {
  boost::asio::post(impl_->strand, std::move(work));
}

}  // namespace vantor::platform
