package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertSame;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.util.HashSet;
import java.util.Set;
import org.junit.Test;

/** The enum of result codes. */
public class ResultCodeTest {
    @Test
    public void isFoundByItsNumber() {
        for (ResultCode code : ResultCode.values()) {
            assertSame(code, ResultCode.of(code.code()));
        }
        assertSame(ResultCode.INVALID_SIGNATURE, ResultCode.of(0x80040214));
        assertSame(ResultCode.OK, ResultCode.of(0));
    }

    @Test
    public void ofANumberInsideAFamilyIsTheFamily() {
        assertSame(ResultCode.TLS_FAMILY, ResultCode.of(0x8004410B));
        assertSame(ResultCode.HTTP_FAMILY, ResultCode.of(0x80042000 | 407));
        assertSame(ResultCode.HTTP_UNAUTHORIZED, ResultCode.of(0x80042000 | 401));
        assertTrue(ResultCode.SOCKET_FAMILY.isFamily());
        assertFalse(ResultCode.SOCKET_REFUSED.isFamily());
    }

    @Test
    public void ofOtherNumbersIsNull() {
        for (int code : new int[] {1, 2, 17, -1, Integer.MAX_VALUE, Integer.MIN_VALUE, 0x80045000}) {
            assertNull(ResultCode.of(code));
        }
    }

    @Test
    public void hasNameTextAndAdvice() {
        Set<String> constants = new HashSet<>();
        int texts = 0;
        for (ResultCode code : ResultCode.values()) {
            assertTrue(code.name(), code.constant().endsWith(code.name()));
            assertTrue(code.name(), constants.add(code.constant()));
            assertFalse(code.name(), code.retry().isEmpty());
            assertFalse(code.name(), code.action().isEmpty());
            texts += code.text() == null ? 0 : 1;
        }
        assertEquals(34, texts);
        assertEquals("the request failed", ResultCode.SERVER_ERROR.text());
        assertTrue(ResultCode.SOCKET_TIMEOUT.moneyMayHaveMoved());
        assertFalse(ResultCode.SOCKET_REFUSED.moneyMayHaveMoved());
    }

    @Test
    public void isTheCodeOfAFailure() {
        KVXException failure = assertThrows(KVXException.class, () -> {
            try (MessageFactory factory = new MessageFactory()) {
                factory.Open("/proc/no/such/directory");
                factory.CreateRequest("").close();
            }
        });
        assertSame(ResultCode.NO_MESSAGE_TYPE, ResultCode.of(failure.getHR()));
    }
}
