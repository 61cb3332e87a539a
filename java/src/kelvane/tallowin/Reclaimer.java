package kelvane.tallowin;

import java.lang.ref.Cleaner;

/**
 * Destroys the native object of an owner that was never closed, after the garbage collector has found the owner
 * unreachable.
 *
 * <p>Holds the handle only and no reference to the owner, which would keep the owner reachable.
 */
final class Reclaimer implements Runnable {
    /** Calls {@code nDestruct} of an owner. */
    @FunctionalInterface
    interface Destructor {
        void run() throws KVXException;
    }

    /** Creates the destructor of a handle whose owner has been collected. */
    @FunctionalInterface
    interface DestructorFactory {
        Destructor of(int handle);
    }

    private static final Cleaner CLEANER = Cleaner.create();

    private final DestructorFactory destructors;
    private final Cleaner.Cleanable cleanable;

    /**
     * The owner's handle; 0 for none.
     *
     * <p>The owner writes this field directly, next to its own handle. A setter could fail with a StackOverflowError
     * between the two writes: a handle not yet stored here would leak, and one not yet cleared here would be destroyed
     * a second time, when it may belong to another object.
     */
    volatile int handle;

    /**
     * Registers {@code owner}, which has no native object yet.
     *
     * @param owner       the object that will hold the handle
     * @param destructors creates the destructor to run in the owner's place; must not refer to {@code owner}
     */
    Reclaimer(Object owner, DestructorFactory destructors) {
        this.destructors = destructors;
        this.cleanable = CLEANER.register(owner, this);
    }

    /** Unregisters the owner, whose handle is 0 again. */
    void stop() {
        cleanable.clean();
    }

    /** Called by the cleaner, once. */
    @Override
    public void run() {
        if (handle != 0) {
            try {
                destructors.of(handle).run();
            } catch (KVXException inUse) {
                throw new IllegalStateException(inUse.getErrorMessage(), inUse);
            }
            handle = 0;
        }
    }
}
