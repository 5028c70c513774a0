// A command queue that does nothing: the tests of the connection need no tool and leave no trace.
#include "platform_linux/queue/transaction_queue.hpp"

namespace zol::cfg
{

class TransactionQueue::State
{
};

TransactionQueue::TransactionQueue(TransactionQueueOptions) {}
TransactionQueue::~TransactionQueue() = default;
TransactionQueue::Held TransactionQueue::hold(const std::vector<std::string>&)
{
    return Held::InForce;
}
void TransactionQueue::keep() {}
void TransactionQueue::look() {}
void TransactionQueue::setCompiled(bool) {}
void TransactionQueue::addCommand(const std::string&) {}
int TransactionQueue::process()
{
    return 0;
}
void TransactionQueue::endDelivery() {}
std::optional<std::chrono::milliseconds> TransactionQueue::retryIn() const
{
    return std::nullopt;
}
bool TransactionQueue::retry()
{
    return false;
}
int TransactionQueue::watchedDescriptor() const
{
    return -1;
}
void TransactionQueue::handleChange() {}
QueueStatus TransactionQueue::status(std::size_t) const
{
    return {};
}

} // namespace zol::cfg
