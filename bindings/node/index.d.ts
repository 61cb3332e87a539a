import { ResultCode } from './lib/resultcode';

export { ResultCode };

/** The base of all exceptions of this package. */
export declare class TallowinError extends Error {}

/** The native library cannot be loaded, or is another major version. */
export declare class LoadError extends TallowinError {}

/** A call of the native library failed. */
export declare class ResultError extends TallowinError {
  /** The flat function that failed. */
  readonly function: string;
  /** The result code, signed. A small positive number is the system's errno. */
  readonly code: number;
  /** The name of the code, such as "KVX_E_SERVER_ERROR". */
  readonly codeName: string;
  /** What the library says about this failure. */
  readonly reason: string;
  /** The status of a refused HTTP exchange, such as 503; null for other failures. */
  readonly httpStatus: number | null;
  /** The system's error number of a directory that cannot be created; null for other failures. */
  readonly errno: number | null;
}

/** An attribute of a message is not what it must be. */
export declare class MismatchError extends TallowinError {
  /** The attribute. */
  readonly attribute: string;
  /** What it must be. */
  readonly wanted: string;
  /** Its value; null when the message has no such attribute. */
  readonly found: string | null;
}

/** The version of the native library. */
export declare function version(): string;

/** One handle of the native library. Forgotten objects are destroyed some time after they are garbage. */
declare abstract class NativeObject {
  /** Whether close() was called. The object then fails with KVX_E_BAD_HANDLE. */
  readonly closed: boolean;
  /** Destroys the native object. Closing again does nothing. Throws while a promise of this object is pending. */
  close(): void;
}

/** Prepares the configuration directory of one account. */
export declare class ConfigurationSetup extends NativeObject {
  /** Creates the directory when its parent exists. Throws a ResultError with `errno` when it cannot. */
  constructor(directory: string);
  /**
   * Registers with the payment service at `url`: loads configuration and defaults, makes and publishes a new key pair.
   * Run it as the user that signs later: a new private key is readable for its owner only.
   */
  reconfigure(url: string, user: string, password: string): Promise<void>;
  /** Sets "UserName", "Password" or "VTAUTOURL" for this object. */
  setOption(name: 'UserName' | 'Password' | 'VTAUTOURL', value: string): void;
  /** The value `name` of a file of the directory, such as "VTURL" of "config.xml"; without `name` the whole file. */
  getAttribute(file: string, name?: string): string;
  /** Sets the value `name` of an existing file and rewrites it. An empty `value` changes nothing. */
  setAttribute(file: string, name: string, value: string): void;
}

/** Makes and verifies the messages of one configuration directory. Messages do not need their factory after they are made. */
export declare class MessageFactory extends NativeObject {
  /** Reads nothing: a wrong directory fails at the first message. */
  constructor(directory: string);
  /** A new payment with a fresh TOKEN and the account's defaults. */
  createPayInit(): MessageObject;
  /**
   * The confirmation that came back with the shopper, when its signature is valid. `data` and `signature` are the query
   * parameters DATA and SIGNATURE, percent-decoded; limit their size before the call. A valid signature is not a payment:
   * require() the type, the result, the token, amount and currency.
   */
  verifyPayConfirm(data: string, signature: string): MessageObject;
  /** A completion; send it with execute(). */
  createPayComplete(paymentId: string, token: string): MessageObject;
  /** A message of any type. */
  createRequest(type: string): MessageObject;
}

/** One message. */
export declare class MessageObject extends NativeObject {
  /** A message bound to a configuration directory; of type ERROR until fromString() fills it. */
  constructor(directory: string);
  /** Sets or replaces an attribute. Never take `name` from a shopper. */
  setAttribute(name: string, value: string): void;
  /** The value of an attribute. Throws a ResultError (KVX_E_NOT_FOUND) when there is none. */
  getAttribute(name: string): string;
  /** The value of an attribute, or null. */
  findAttribute(name: string): string | null;
  /** Throws a MismatchError unless every attribute has exactly the given value, a TypeError when none is named. */
  require(attributes: Readonly<Record<string, string>>): void;
  /** The signed payment URL for the shopper's browser. Sends nothing itself. */
  getUrl(): string;
  /**
   * Sends the message as a capture. After a failure the payment may have been captured all the same: ask the service before you
   * repeat it.
   */
  capture(): Promise<void>;
  /** Sends the message as a request of its type, once only; the response. */
  execute(): Promise<MessageObject>;
  /** Replaces the message by a parsed text, such as the DATA of a confirmation. */
  fromString(text: string): void;
  /** The message as text. */
  toString(): string;
}
