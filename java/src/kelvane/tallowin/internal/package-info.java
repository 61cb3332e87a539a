/**
 * What the public classes share. No other module can use it, and programs must not.
 */
package kelvane.tallowin.internal;
