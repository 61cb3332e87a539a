package kelvane.tallowin;

/**
 * Failing allocations of the library and of OpenSSL, on the calling thread. Needs a virtual machine into which the
 * library {@code tests/java/heapfault.cpp} has been preloaded.
 */
final class HeapFault {
    static {
        System.load(Given.heapFault().toString());
    }

    private HeapFault() {
    }

    /** Begins to watch the calling thread, the only one. Returns how many parts of libraries are watched. */
    static native int watch();

    /** The same for the libraries of the order ledger. */
    static native int watchLedger();

    /** Fails allocation {@code number} (from 0; negative: none), alone or with all that follow, until the end. */
    static native void arm(long number, boolean isOnwards);

    /** Ends the fault and returns how many allocations were requested meanwhile. */
    static native long disarm();

    /** Whether an allocation has failed since {@link #arm}. */
    static native boolean hasFailed();

    /** Watched allocations that have not been released. */
    static native long living();
}
