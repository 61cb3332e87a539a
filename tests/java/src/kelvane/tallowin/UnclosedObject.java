package kelvane.tallowin;

import java.lang.reflect.Field;

/**
 * Reports whether the native object of an unclosed owner has been freed.
 *
 * <p>Reads the handle in the owner's {@link Reclaimer}. A call on the native object would keep it from being freed.
 */
final class UnclosedObject {
    private final Reclaimer reclaimer;

    /** @param owner no reference to it is kept */
    UnclosedObject(Object owner) throws ReflectiveOperationException {
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
