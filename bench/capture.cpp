// What capture costs: one saved object becomes a pending transaction, in a small and in a large store.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSString+UUID.h"
#include "Sync/VLKSyncController.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ObjectClass.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/UserDefaults.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor;
using namespace velkor::NS;

class Note : public ManagedObject {};

std::shared_ptr<const ManagedObjectModel> model() {
    ObjectClass::registerClass<Note>("Note").adopt(VLKSyncableObject);
    ModelBuilder builder;
    builder.entity("Note").attribute("guid", AttributeType::string).attribute("title", AttributeType::string);
    return builder.build().value();
}

/// One store and its controller, of which a process has one: grown to each size in turn, so the sizes must rise.
class Host {
public:
    static Host& instance() {
        static Host host;
        return host;
    }

    void growTo(std::int64_t size) {
        while (m_size < size) {
            const auto context = ManagedObjectContext::create(m_coordinator);
            for (int i = 0; i < 10'000 && m_size < size; ++i, ++m_size)
                context->insertNewObject(*m_entity)->setPrimitiveValue("guid", stringWithUUID());
            m_controller->disableObserving();
            if (!context->save()) std::abort();
            m_controller->enableObserving();
            drain();
        }
    }
    void saveOne() {
        ++m_size;
        m_context->insertNewObject(*m_entity)->setPrimitiveValue("guid", stringWithUUID());
        if (!m_context->save()) std::abort();
    }
    void drain() {
        bool drained = false;
        OperationQueue::mainQueue().addOperation([&] { drained = true; });
        RunLoop::main().runUntil([&] { return drained; }, -1);
    }

private:
    Host() {
        RunLoop::main();
        UserDefaults::standardUserDefaults().setDirectory(m_directory.path());
        m_coordinator = PersistentStoreCoordinator::open(model(), m_directory / "store.sqlite").value();
        m_entity = m_coordinator->managedObjectModel().entityNamed("Note");
        m_context = ManagedObjectContext::create(m_coordinator, ConcurrencyType::mainQueue);
        m_controller = VLKSyncController::globalInstanceWithServerURL("http://127.0.0.1:1", [coordinator = m_coordinator] {
            return ManagedObjectContext::create(coordinator, ConcurrencyType::privateQueue);
        });
    }

    const test::TemporaryDirectory m_directory;
    std::shared_ptr<PersistentStoreCoordinator> m_coordinator;
    std::shared_ptr<ManagedObjectContext> m_context;
    const EntityDescription* m_entity = nullptr;
    VLKSyncController* m_controller = nullptr;
    std::int64_t m_size = 0;
};

void captureOne(benchmark::State& state) {
    Host& host = Host::instance();
    host.growTo(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        host.saveOne();
        state.ResumeTiming();
        host.drain();
    }
}

BENCHMARK(captureOne)->ArgName("objects")->Arg(10'000)->Arg(1'000'000)->Unit(benchmark::kMicrosecond)->Iterations(2000);

}  // namespace

BENCHMARK_MAIN();
