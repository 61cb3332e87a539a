package kelvane.tallowin;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertNull;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.ObjectInputStream;
import java.io.ObjectOutputStream;
import org.junit.Test;

/** The class KVXException. */
public class ExceptionTest {
    private static KVXException exception(int hr, String text) {
        KVXException made = new KVXException();
        made.putHR(hr);
        made.putErrorMessage(text);
        return made;
    }

    @Test
    public void aNewOneHasNoCodeAndNoText() {
        KVXException fresh = new KVXException();
        assertEquals(0, fresh.getHR());
        assertNull(fresh.getErrorMessage());
        assertEquals("0x00000000", fresh.getMessage());
        assertNull(fresh.getCause());
    }

    @Test
    public void returnsCodeAndText() {
        KVXException filled = exception(0x80040214, "MessageFactory::VerifyPayConfirm(): invalid signature");
        assertEquals(0x80040214, filled.getHR());
        assertTrue(filled.getHR() < 0);
        assertEquals("MessageFactory::VerifyPayConfirm(): invalid signature", filled.getErrorMessage());
    }

    @Test
    public void theMessageIsTheTextAndTheCode() {
        Object[][] rows = {
            {0x80040201, "MessageFactory::Open(): no context", "MessageFactory::Open(): no context (0x80040201)"},
            {13, "x", "x (0x0000000D)"},
            {0x7FFFFFFF, "", " (0x7FFFFFFF)"},
            {-1, null, "0xFFFFFFFF"},
            {0x800421F7, "100% %s \u00fc", "100% %s \u00fc (0x800421F7)"},
        };
        for (Object[] row : rows) {
            KVXException filled = exception((Integer) row[0], (String) row[1]);
            assertEquals(row[2], filled.getMessage());
            assertEquals(row[2], filled.getLocalizedMessage());
            assertEquals("kelvane.tallowin.KVXException: " + row[2], filled.toString());
        }
    }

    @Test
    public void canBeSetAgain() {
        KVXException filled = exception(1, "one");
        filled.putHR(2);
        filled.putErrorMessage(null);
        assertEquals(2, filled.getHR());
        assertNull(filled.getErrorMessage());
        assertEquals("0x00000002", filled.getMessage());
    }

    @Test
    public void isACheckedException() {
        assertTrue(Exception.class.isAssignableFrom(KVXException.class));
        assertFalse(RuntimeException.class.isAssignableFrom(KVXException.class));
    }

    @Test
    public void namesTheMethodThatFailed() throws Exception {
        try (MessageObject message = new MessageObject()) {
            KVXException thrown = assertThrows(KVXException.class, message::ToString);
            assertEquals("MessageFactory::ToString(): unexpected error (0x80040211)", thrown.getMessage());
            assertEquals("ToString", thrown.getStackTrace()[0].getMethodName());
            assertEquals("kelvane.tallowin.MessageObject", thrown.getStackTrace()[0].getClassName());
        }
    }

    @Test
    public void survivesSerialisation() throws Exception {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        try (ObjectOutputStream out = new ObjectOutputStream(bytes)) {
            out.writeObject(exception(0x80040214, "text"));
        }
        try (ObjectInputStream in = new ObjectInputStream(new ByteArrayInputStream(bytes.toByteArray()))) {
            KVXException read = (KVXException) in.readObject();
            assertNotNull(read);
            assertEquals(0x80040214, read.getHR());
            assertEquals("text", read.getErrorMessage());
        }
    }
}
