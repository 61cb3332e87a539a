package kelvane.tallowin;

import java.lang.reflect.Field;

/**
 * Tells when the native object of a forgotten owner has been freed.
 *
 * <p>Asks the owner's {@link Reclaimer}. The native object itself cannot be asked while it may be freed at any moment:
 * a call on it would be in the way.
 */
final class Forgotten {
    private final Reclaimer reclaimer;

    /** @param owner is not kept */
    Forgotten(Object owner) throws ReflectiveOperationException {
        Field field = owner.getClass().getDeclaredField("reclaimer");
        field.setAccessible(true);
        reclaimer = (Reclaimer) field.get(owner);
    }

    boolean isFreed() throws ReflectiveOperationException {
        Field field = Reclaimer.class.getDeclaredField("handle");
        field.setAccessible(true);
        return field.getInt(reclaimer) == 0;
    }
}
