package kelvane.tallowin;

import java.lang.ref.Cleaner;
import java.lang.ref.Reference;

/**
 * Destroys the native object of an owner: when the owner is closed, or, of an owner that nobody closed, once the garbage
 * collector has found it.
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
    private int handle;

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

    /** {@code owner} now holds {@code newHandle}. It counts as reachable until that is known here. */
    synchronized void hold(Object owner, int newHandle) {
        handle = newHandle;
        Reference.reachabilityFence(owner);
    }

    /**
     * The owner destroys its native object itself. There is nothing to watch over any more.
     *
     * @throws IllegalStateException when the object is in use; all stays as it was then
     */
    void close(Destructor owner) {
        destruct(owner);
        forget();
        cleanable.clean();
    }

    private synchronized void forget() {
        handle = 0;
    }

    /** Called by the cleaner, once. */
    @Override
    public synchronized void run() {
        if (handle != 0) {
            destruct(heir.of(handle));
            handle = 0;
        }
    }

    private static void destruct(Destructor owner) {
        try {
            owner.run();
        } catch (KVXException inUse) {
            throw new IllegalStateException(inUse.getErrorMessage(), inUse);
        }
    }
}
