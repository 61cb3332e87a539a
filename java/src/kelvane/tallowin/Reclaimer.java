package kelvane.tallowin;

import java.lang.ref.Cleaner;

/**
 * Destroys the native object of an owner that nobody closed, once the garbage collector has found the owner.
 *
 * <p>Knows the handle only, never the owner.
 */
final class Reclaimer implements Runnable {
    /** Calls {@code nDestruct} of an owner. */
    @FunctionalInterface
    interface Destructor {
        void run() throws KVXException;
    }

    /** Makes a second owner of a handle whose first one is no more. */
    @FunctionalInterface
    interface Heir {
        Destructor of(int handle);
    }

    private static final Cleaner CLEANER = Cleaner.create();

    private final Heir heir;
    private final Cleaner.Cleanable cleanable;

    /**
     * The handle that the owner holds; 0 for none.
     *
     * <p>Owners write it themselves, together with their own: at the end of the stack a call fails, and a handle that is
     * known here too late is lost, one that is known too long is somebody else's by then.
     */
    volatile int handle;

    /**
     * Begins to watch over {@code owner}, which holds no native object yet.
     *
     * @param owner the object that will hold the handle
     * @param heir  destroys in the owner's place; must not know {@code owner}
     */
    Reclaimer(Object owner, Heir heir) {
        this.heir = heir;
        this.cleanable = CLEANER.register(owner, this);
    }

    /** There is nothing to watch over any more. */
    void stop() {
        cleanable.clean();
    }

    /** Called by the cleaner, once. */
    @Override
    public void run() {
        if (handle != 0) {
            try {
                heir.of(handle).run();
            } catch (KVXException inUse) {
                throw new IllegalStateException(inUse.getErrorMessage(), inUse);
            }
            handle = 0;
        }
    }
}
