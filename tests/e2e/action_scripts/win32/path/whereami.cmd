@echo off
echo path
