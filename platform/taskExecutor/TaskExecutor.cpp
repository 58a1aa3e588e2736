#include "taskExecutor/TaskExecutor.h"

#include <utility>

#include "scheduling/DelayedTaskQueue.h"

namespace veranda {

std::shared_ptr<TaskExecutor> TaskExecutor::create(
    std::function<void(std::unique_ptr<Message>)> const& handler,
    std::shared_ptr<DynamicThreadPool> pool) {
  // The executor library's own form: a plain new wrapped with the default deleter.
  return std::shared_ptr<TaskExecutor>(  // NOLINT(modernize-make-shared)
      new TaskExecutor(handler, std::move(pool)));
}

// The signature is the executor library's.
// NOLINTNEXTLINE(modernize-pass-by-value)
TaskExecutor::TaskExecutor(std::function<void(std::unique_ptr<Message>)> const& handler,
                           // NOLINTNEXTLINE(performance-unnecessary-value-param)
                           std::shared_ptr<DynamicThreadPool> /*pool*/)
    : queue_(std::make_unique<scheduling::DelayedTaskQueue>()), handler_(handler) {}

TaskExecutor::~TaskExecutor() { queue_->stop(); }

void TaskExecutor::post(std::function<void()> const& task) {
  queue_->post(task, std::chrono::milliseconds::zero());
}

void TaskExecutor::postDelayed(std::function<void()> const& task, std::chrono::milliseconds delay) {
  queue_->post(task, delay);
}

void TaskExecutor::removeCallbacksAndMessages() { queue_->takePending(); }

}  // namespace veranda
