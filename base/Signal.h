// qyRTB: signals with function callbacks, and the Entity that announces its modification
// and destruction through two of them.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyRTB
{

namespace detail
{
struct SlotState
{
    bool connected = true;
    bool blocked = false;
    bool locked = false; // true while the callback runs
};
} // namespace detail

/// Handle to one connection. Copies refer to the same connection; a default handle refers
/// to none. Using a handle after its signal was destroyed is harmless.
class Connection
{
public:
    Connection() = default;

    /// The callback is not called again; safe from inside the callback itself.
    void disconnect()
    {
        if (auto s = m_slot.lock())
            s->connected = false;
    }
    /// A blocked connection is skipped by emissions until unblocked.
    void block(bool on = true)
    {
        if (auto s = m_slot.lock())
            s->blocked = on;
    }
    void unblock() { block(false); }
    bool isConnected() const
    {
        auto s = m_slot.lock();
        return s && s->connected;
    }
    bool isBlocked() const
    {
        auto s = m_slot.lock();
        return s && s->blocked;
    }

private:
    template <class...> friend class Signal;
    explicit Connection(std::weak_ptr<detail::SlotState> slot) : m_slot(std::move(slot)) {}
    std::weak_ptr<detail::SlotState> m_slot;
};

/// A connection that is disconnected when the handle is destroyed. Move-only.
class ScopedConnection
{
public:
    ScopedConnection() = default;
    ScopedConnection(Connection c) : m_c(std::move(c)) {}
    ScopedConnection(ScopedConnection&& o) noexcept : m_c(std::exchange(o.m_c, Connection())) {}
    ScopedConnection& operator=(ScopedConnection&& o) noexcept
    {
        if (this != &o)
        {
            m_c.disconnect();
            m_c = std::exchange(o.m_c, Connection());
        }
        return *this;
    }
    ScopedConnection(const ScopedConnection&) = delete;
    ScopedConnection& operator=(const ScopedConnection&) = delete;
    ~ScopedConnection() { m_c.disconnect(); }

    Connection& get() { return m_c; }
    void disconnect() { m_c.disconnect(); }

private:
    Connection m_c;
};

/// A list of callbacks called in connection order by emit(). Callbacks are free functions,
/// function objects or member functions of the receiver's objects. A callback may disconnect
/// any connection (its own included), connect new ones (called from the next emission on) or
/// stop() the running emission. One thread uses a signal at a time.
template <class... Args> class Signal
{
public:
    using Callback = std::function<void(Args...)>;

    Signal() = default;
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;

    Connection connect(Callback callback)
    {
        purge();
        auto slot = std::make_shared<Slot>();
        slot->fn = std::move(callback);
        m_slots.push_back(slot);
        return Connection(slot);
    }
    /// Connects obj->method; obj must outlive the connection.
    template <class Obj, class Method> Connection connect(Obj* obj, Method method)
    {
        return connect([obj, method](Args... args) { (obj->*method)(args...); });
    }

    /// Calls every connected, unblocked callback in connection order, unless the whole signal
    /// is blocked. Each connection is locked while its callback runs.
    void emit(Args... args)
    {
        if (m_blocked)
            return;
        ++m_emitting;
        const bool outerStop = m_stopped;
        m_stopped = false;
        const std::size_t n = m_slots.size();
        for (std::size_t i = 0; i < n && !m_stopped; ++i)
        {
            std::shared_ptr<Slot> slot = m_slots[i]; // survives a disconnect inside the call
            if (!slot->connected || slot->blocked || slot->locked)
                continue;
            slot->locked = true;
            try
            {
                slot->fn(args...);
            }
            catch (...)
            {
                slot->locked = false;
                --m_emitting;
                m_stopped = outerStop;
                throw;
            }
            slot->locked = false;
        }
        m_stopped = outerStop;
        --m_emitting;
        purge();
    }
    void operator()(Args... args) { emit(args...); }

    /// Called from a callback: the callbacks after it are skipped in this emission.
    void stop() { m_stopped = true; }
    /// A blocked signal emits nothing.
    void block(bool on = true) { m_blocked = on; }
    bool isBlocked() const { return m_blocked; }
    void disconnectAll()
    {
        for (auto& s : m_slots)
            s->connected = false;
        purge();
    }
    int getNumConnections() const
    {
        int n = 0;
        for (const auto& s : m_slots)
            n += s->connected ? 1 : 0;
        return n;
    }

private:
    struct Slot : detail::SlotState
    {
        Callback fn;
    };

    void purge()
    {
        if (m_emitting)
            return;
        std::erase_if(m_slots, [](const std::shared_ptr<Slot>& s) { return !s->connected; });
    }

    std::vector<std::shared_ptr<Slot>> m_slots;
    int m_emitting = 0;
    bool m_stopped = false;
    bool m_blocked = false;
};

template <class A> using Signal1Args = Signal<A>;
template <class A, class B> using Signal2Args = Signal<A, B>;
template <class A, class B, class C> using Signal3Args = Signal<A, B, C>;

class Entity;

/// Base of the records that tell an entity's observers what changed.
class QYGEOM_API EntityModification
{
public:
    explicit EntityModification(const Entity* entity) : m_entity(entity) {}
    virtual ~EntityModification();
    const Entity* getEntity() const { return m_entity; }

private:
    const Entity* m_entity;
};

/// An object that observers can follow: one signal carries the entity itself when it is
/// destroyed, the other each modification. The signals belong to the object, not its value:
/// copying an entity copies no connection.
class QYGEOM_API Entity
{
public:
    using DestroyedSignal = Signal<const Entity*>;
    using ModifiedSignal = Signal<const EntityModification&>;

    /// Emitted once from the destructor; the pointer identifies the entity and must not be
    /// used to reach derived parts, which are already gone.
    DestroyedSignal& getDestroyedSignal() const { return m_destroyed; }
    /// Emitted with each modification record.
    ModifiedSignal& getModifiedSignal() const { return m_modified; }

protected:
    Entity() = default;
    Entity(const Entity&) {}
    Entity& operator=(const Entity&) { return *this; }
    virtual ~Entity();

private:
    mutable DestroyedSignal m_destroyed;
    mutable ModifiedSignal m_modified;
};

} // namespace qyRTB
