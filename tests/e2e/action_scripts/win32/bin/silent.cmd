@echo off
rem Runs and prints nothing.
